// The reference of the package, and its types.
//
// The library keeps its state once for the process: there is one index session and one match
// session at a time, and everything is called from the main thread. The asynchronous forms work on
// threads of Node's pool; sixteen run at once, the others wait for their turn.
//
// The library looks for its files in the current directory of the process. A call of a session
// changes to its home and back, an asynchronous one when it ends: use absolute paths meanwhile, or
// let the home be the current directory for good. Asynchronous calls in different homes wait for
// each other; a synchronous one that would have to wait throws TESSERA_BUSY.
/// <reference types="node" />

/** 8 bytes, ordered from the first. Parts of a text can be won back from its signatures: keep them
 * as confidential as the text. */
export type Signature = Buffer;

export interface GenerateOptions {
  /** How many signatures: 'client', the default, takes one for every selected passage, at most 10000,
   * and finds single paragraphs; 'server' a few evenly spread ones for each 1024 bytes. Those of an
   * index and those that are matched against it may differ in this. */
  platform?: 'client' | 'server';
  /** Bytes of letters, digits and what is not ASCII that are looked at: 1048576 (1 MiB) to 78643200
   * (75 MiB), 6291456 unless given. The rest of the text is left alone. */
  maxContentSize?: number;
}

/**
 * The signatures of a text: ascending, no two equal.
 *
 * Only ASCII letters, ASCII digits and bytes from 128 up count. Of a text with fewer than 61 of them
 * there is no signature, and of a short one there may be none: on average one place in 137 gives one.
 * No file is read or written: "max_content_size" in the configuration file of a home has no effect.
 *
 * @param text a string is taken as UTF-8, a lone surrogate as U+FFFD; bytes are UTF-8 or any
 *   single-byte encoding, at most 2147483647
 * @throws TypeError, RangeError for arguments that cannot be meant
 * @throws TesseraError when memory runs out; TESSERA_BUSY while asynchronous calls run with other options
 */
export function signatures(text: string | Uint8Array, options?: GenerateOptions): Signature[];

/** As signatures(), off the event loop: for big texts. Bytes are copied first, so that they may change
 * meanwhile. Calls with the same options run side by side. */
export function signaturesAsync(text: string | Uint8Array, options?: GenerateOptions): Promise<Signature[]>;

/**
 * The one signature of a content that is not text, none for no bytes: samples of its bytes and its
 * length modulo 65536. It tells the same content again, and nothing that is similar. Errors as for
 * signatures().
 */
export function binarySignatures(content: Uint8Array): Signature[];

/** What IndexSession and MatchSession have in common. */
declare abstract class Session {
  protected constructor();

  /** The directory that was given, as an absolute path without links. */
  readonly home: string;

  readonly isOpen: boolean;

  /** Closes the session; closed already, it does nothing.
   * @throws TesseraError TESSERA_BUSY while asynchronous calls of the session run; see the sessions */
  close(): void;

  /** Closes the session off the event loop, after its asynchronous calls. From now on others are
   * refused. */
  closeAsync(): Promise<void>;

  /** close(), where the language has "using". */
  [Symbol.dispose](): void;

  /** closeAsync(), where the language has "await using". */
  [Symbol.asyncDispose](): Promise<void>;
}

/**
 * The index of a home, open for adding and removing documents: one at a time in a process, and one
 * process at a time for a home.
 *
 * Closing is saving: what was added since the last batch is lost when the program ends without. A
 * session that matches in the same home refuses from the save on, until it is opened anew.
 */
export class IndexSession extends Session {
  /**
   * Opens the index of a home, or makes one. What a crash left half done is undone first. A home
   * without a configuration file gets one.
   *
   * @param home a directory that exists; keep it as confidential as the documents
   * @throws TesseraError TESSERA_ALREADY_OPEN when this process has an open index session;
   *   TESSERA_FAILED when another process has the index open, the configuration is malformed, or the
   *   index is damaged
   * @throws Error of the file system when there is no such directory
   */
  constructor(home: string);

  /** Opens off the event loop. */
  static open(home: string): Promise<IndexSession>;

  /**
   * Adds a document. It is in memory until a batch of them is written, at the latest by close().
   *
   * @param fileId your number of the document: a whole number from -2147483648 to 2147483646 but -1,
   *   in an index that was made by this library
   * @param signatures at least one, in any order
   * @throws RangeError when there are no signatures: the text was too short
   * @throws TesseraError TESSERA_PENDING (status 2) when this file ID was added before and is not
   *   written yet: its first addition stands; TESSERA_FAILED when the file ID is out of its bounds, the
   *   index has reached its largest size, or a batch could not be written; TESSERA_CLOSED
   */
  add(fileId: number, signatures: readonly Uint8Array[]): void;

  addAsync(fileId: number, signatures: readonly Uint8Array[]): Promise<void>;

  /**
   * Removes documents for good, all of one call together. File IDs that the index does not hold are no
   * failure; documents that were added in this session and are not written yet stay.
   *
   * @throws TesseraError TESSERA_FAILED when a file ID is too far from the base of the index (those
   *   before it are removed all the same) or memory runs out; TESSERA_CLOSED
   */
  delete(fileIds: number | readonly number[]): void;

  deleteAsync(fileIds: number | readonly number[]): Promise<void>;

  /**
   * Sets the size of "sig_index_DB/sig_table.stbl" from which on documents are refused: 2 GiB unless
   * changed, which is also the most that can be matched. It holds for the whole process. It is measured
   * when a document is added, on the table that an earlier session saved, and only if the configuration
   * names it: search_table_fname = "sig_table".
   */
  setMaxTableSize(bytes: number): void;
}

/** How much of a query a document holds. */
export const MatchLevel: {
  /** Less than for the others. */
  readonly TRACE: 0;
  /** A twentieth of the query's signatures, or three of them. */
  readonly WEAK: 1;
  /** A tenth of the query's signatures, or nine of them. */
  readonly STRONG: 2;
};
export type MatchLevel = 0 | 1 | 2;

/** One document that shares passages with a query. */
export interface Match {
  /** As given to add(). */
  fileId: number;
  level: MatchLevel;
}

export interface MatchOptions {
  /** false makes every match a strong one. */
  graded?: boolean;
}

/**
 * The search tables of a home, loaded for matching: one at a time in a process, in the home of an open
 * index session or another; any number of processes. The library reads the configuration file with the
 * first session of a process only: later ones keep that configuration, also in another home.
 */
export class MatchSession extends Session {
  /**
   * Loads the tables that closing an IndexSession wrote.
   *
   * @throws TesseraError TESSERA_ALREADY_OPEN when this process has an open match session;
   *   TESSERA_FAILED when there is no index, its configuration cannot be read, or its tables are missing,
   *   empty or inconsistent
   * @throws Error of the file system when there is no such directory
   */
  constructor(home: string);

  /** Loads off the event loop. */
  static open(home: string): Promise<MatchSession>;

  /**
   * Finds the documents that share signatures with a query.
   *
   * @param signatures none or more, in any order
   * @returns by source (the low 32 bits of the file ID), of one source at most five: those with the
   *   most shared signatures. Empty means that nothing was found, never that something failed
   * @throws TesseraError TESSERA_FAILED when the index was saved since the session was opened, its table
   *   cannot be read, or memory runs out; TESSERA_CLOSED
   */
  match(signatures: readonly Uint8Array[], options?: MatchOptions): Match[];

  /** match() off the event loop. Any number may run side by side. */
  matchAsync(signatures: readonly Uint8Array[], options?: MatchOptions): Promise<Match[]>;
}

/** A call failed. */
export class TesseraError extends Error {
  readonly code: 'TESSERA_FAILED' | 'TESSERA_PENDING' | 'TESSERA_ALREADY_OPEN' | 'TESSERA_CLOSED'
    | 'TESSERA_BUSY';
  /** What the library returned: 1, 2 for a document that is pending already, or a negative internal
   * status. 1 when it was not asked. */
  readonly status: number;
  /** The exported function that failed; '' when the library was not asked. */
  readonly function: string;
}
