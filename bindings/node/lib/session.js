// What the sessions of index and matching have in common: a home, being the only one of their
// kind, and being open or not.
'use strict';

const fs = require('node:fs');
const path = require('node:path');
const { TesseraError } = require('./errors');
const native = require('./native');
const { currentDirectory, hostDirectory, inNowhere, inNowhereNow } = require('./shared');

const LATER = Symbol('opened by open()');

/** Whether a home could not be entered. Closing must still be possible, and overwrite nothing elsewhere. */
const isGone = (error) => error.syscall === 'chdir';

class Session {
  static taken = new Set();  // kinds that are open: the library serves one of each

  #kind;
  #state = 'closed';  // opening, open, closing
  #running = 0;       // asynchronous calls
  #closing;           // promise of closeAsync()
  #idle;              // what it waits for

  /** `kind` tells of the library's functions: { name, begin, beginFailed(home, status), end,
   * endFailed(home, status), endsAnyway, prepare(home) }. */
  constructor(kind, home, when) {
    if (typeof home !== 'string') throw new TypeError('home must be a string');
    // As it is now, wherever a link leads to later.
    this.home = fs.realpathSync(path.resolve(hostDirectory(), home));
    if (!fs.statSync(this.home).isDirectory()) throw new TypeError(`no directory: ${this.home}`);
    if (Session.taken.has(kind.name)) {
      throw new TesseraError(`this process has an open ${kind.name} session already`,
                             { code: 'TESSERA_ALREADY_OPEN' });
    }
    this.#kind = kind;
    Session.taken.add(kind.name);
    this.#state = 'opening';
    if (when === LATER) return;
    try {
      kind.prepare(this.home);
      this.#opened(this.#now(kind.begin, []));
    } finally {
      this.#giveUpUnlessOpen();
    }
  }

  /** Opens off the event loop. */
  static async open(home) {
    const session = new this(home, LATER);
    const kind = session.#kind;
    try {
      kind.prepare(session.home);
      session.#opened(await session.#later(kind.begin, []));
      return session;
    } finally {
      session.#giveUpUnlessOpen();
    }
  }

  get isOpen() {
    return this.#state === 'open';
  }

  close() {
    if (this.#state === 'closed') return;
    if (this.#state === 'closing' || this.#running > 0) {
      throw new TesseraError('asynchronous calls of this session are running: await closeAsync()',
                             { code: 'TESSERA_BUSY' });
    }
    const { end } = this.#kind;
    try {
      this.#closed(this.#now(end, []), true);
    } catch (error) {
      if (!isGone(error)) throw error;
      this.#closed(inNowhereNow(() => native.call(end, [])), false);
    }
  }

  async closeAsync() {
    if (this.#state === 'closed') return;
    this.#closing ??= this.#closeAfterCalls().finally(() => { this.#closing = undefined; });
    await this.#closing;
  }

  async #closeAfterCalls() {
    this.#state = 'closing';
    try {
      if (this.#running > 0) await new Promise((resolve) => { this.#idle = resolve; });
      const { end } = this.#kind;
      try {
        this.#closed(await this.#later(end, []), true);
      } catch (error) {
        if (!isGone(error)) throw error;
        this.#closed(await inNowhere(() => native.callAsync(end, [])), false);
      }
    } finally {
      if (this.#state === 'closing') this.#state = 'open';
    }
  }

  /** Calls a function in the home, and gives `finish` its status. */
  call(name, args, finish) {
    this.#mustBeOpen();
    return finish(this.#now(name, args));
  }

  async callAsync(name, args, finish) {
    this.#mustBeOpen();
    ++this.#running;
    try {
      return finish(await this.#later(name, args));
    } finally {
      if (--this.#running === 0) this.#idle?.();
    }
  }

  /** Throws when asynchronous calls are running. */
  mustBeIdle() {
    this.#mustBeOpen();
    if (this.#running > 0) {
      throw new TesseraError('asynchronous calls of this session are running', { code: 'TESSERA_BUSY' });
    }
  }

  #mustBeOpen() {
    if (this.#state === 'open') return;
    throw new TesseraError(`the ${this.#kind.name} session is closed`, { code: 'TESSERA_CLOSED' });
  }

  #now(name, args) {
    return currentDirectory.useNow(this.home, () => native.call(name, args));
  }

  #later(name, args) {
    return currentDirectory.use(this.home, () => native.callAsync(name, args));
  }

  #opened(status) {
    if (status !== 0) throw this.#kind.beginFailed(this.home, status);
    this.#state = 'open';
  }

  #giveUpUnlessOpen() {
    if (this.#state !== 'open') this.#forget();
  }

  #closed(result, atHome) {
    // The library does not tell that the tables of an index could not be written.
    const status = result === 0 && !atHome && this.#kind.endsAnyway ? 1 : result;
    // An index is closed in any case; tables that could not be let go are still there.
    if (status === 0 || this.#kind.endsAnyway) this.#forget();
    if (status !== 0) throw this.#kind.endFailed(this.home, status);
  }

  #forget() {
    this.#state = 'closed';
    Session.taken.delete(this.#kind.name);
  }
}

// Where the language has "using".
if (Symbol.dispose) Session.prototype[Symbol.dispose] = function dispose() { this.close(); };
if (Symbol.asyncDispose) {
  Session.prototype[Symbol.asyncDispose] = function asyncDispose() { return this.closeAsync(); };
}

module.exports = { Session };
