// The fifteen functions of the library, as include/tessera.h declares them, and what it takes
// to call them: memory for what they give back, and calls off the event loop.
//
// Variables that a function writes to are typed arrays of one element. They and all else that
// is given to an asynchronous call stay alive until it has ended, and are nobody else's.
'use strict';

const fs = require('node:fs');
const path = require('node:path');
const koffi = require('koffi');

const NAMES = { 'linux-x64': 'libtessera.so.1', 'win32-x64': 'tessera.dll' };
const DECLARATIONS = [
  'int InitSignatureGenerator(int platform)',
  'int GenerateSignature4Text(const void* content, int length, void* signatures, void* count)',
  'int GenerateSignature4Binary(const void* content, int length, void* signatures, void* count)',
  'int SetMaxContentSize(int bytes)',
  'int FreeSignature(void* signatures)',
  'int ExitSignatureGenerator()',
  'int InitIndexSystem()',
  'int AddDocSignature(int64_t file_id, const void* signatures, int count)',
  'int DelDocSignature(const void* file_ids, int count)',
  'int ExitIndexSystem()',
  'int setMaxStblSize(unsigned int bytes)',
  'int InitMatchSystem()',
  'int MatchSignature(const void* signatures, int count, int fsz, void* result, void* result_count)',
  'int FreeSigMatchRet(void* result)',
  'int ExitMatchSystem()',
];

// More calls at once only wait for a thread of Node's pool, which has four unless told otherwise, and
// koffi refuses more than 256. (It gives each a stack of 128 KiB, of which the library needs 16.)
const CALLS_AT_ONCE = 16;
let running = 0;
const waiting = [];

function load() {
  const target = `${process.platform}-${process.arch}`;
  const file = path.join(__dirname, '..', 'prebuilt', target, String(NAMES[target]));
  if (!fs.existsSync(file)) throw new Error(`this package of tessera has no library for ${target}`);
  const library = koffi.load(file);
  return Object.fromEntries(DECLARATIONS.map((text) => [/(\w+)\(/.exec(text)[1], library.func(text)]));
}

const native = load();

/** Calls a function at once: its status. */
function call(name, args) {
  return native[name](...args);
}

/** Calls a function on another thread: a promise of its status. */
async function callAsync(name, args) {
  if (running === CALLS_AT_ONCE) await new Promise((resolve) => waiting.push(resolve));
  else ++running;
  try {
    return await new Promise((resolve, reject) => {
      native[name].async(...args, (error, status) => {
        args = null;  // not before
        if (error) reject(error);
        else resolve(status);
      });
    });
  } finally {
    if (waiting.length > 0) waiting.shift()();  // takes the place over
    else --running;
  }
}

/** What a function returns a block by: its address and the number of its records. */
function blockArguments() {
  // Anything but null, which matching refuses; the others clear it.
  return [new BigUint64Array([1n]), new Int32Array(1)];
}

/** A copy of such a block after a call that succeeded. The block is freed. */
function takeBlock([address, count], recordSize, free) {
  try {
    if (count[0] === 0) return Buffer.alloc(0);
    const bytes = koffi.decode(address[0], koffi.array('uint8_t', count[0] * recordSize, 'Typed'));
    return Buffer.from(bytes.buffer, bytes.byteOffset, bytes.byteLength);
  } finally {
    native[free](address[0]);
  }
}

/** `bytes`, or some that nobody looks at: nothing may be missing. */
function notEmpty(bytes) {
  return bytes.length > 0 ? bytes : Buffer.alloc(8);
}

module.exports = { call, callAsync, blockArguments, takeBlock, notEmpty };
