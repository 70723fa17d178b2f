// What the library keeps once for the whole process: the current directory, in which it looks
// for its files, and the settings of the generator. Calls that run at once share them.
'use strict';

const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { TesseraError } = require('./errors');

/** Something of the process that is in one state at a time. Users of the same state work side by
 * side; one that wants another waits until those have finished, in the order of coming. */
class Shared {
  #begin;
  #end;
  #state;
  #users = 0;
  #ready;             // of the state, for those who wait
  #changing = false;  // the state is not ready yet
  #queue = [];

  /** `begin(state, wait)` makes the state, as its first user comes in; it may be asynchronous when
   * `wait` is true. `end` is called as the last one goes. */
  constructor(begin, end = () => {}) {
    this.#begin = begin;
    this.#end = end;
  }

  /** Runs `work` now, or throws when that is not possible. */
  useNow(state, work) {
    if (this.#changing || !this.#letsIn(state)) {
      throw new TesseraError('asynchronous calls are running elsewhere: await them, or call asynchronously',
                             { code: 'TESSERA_BUSY' });
    }
    if (this.#users === 0) {
      this.#begin(state, false);
      this.#state = state;
      this.#ready = undefined;
    }
    ++this.#users;
    try {
      return work();
    } finally {
      this.#leave();
    }
  }

  /** Runs `work`, which may be asynchronous, as soon as the state can be had. */
  async use(state, work) {
    if (this.#queue.length === 0 && this.#letsIn(state)) this.#enter(state);
    else await new Promise((entered) => this.#queue.push({ state, entered }));
    try {
      await this.#ready;
      return await work();
    } finally {
      this.#leave();
    }
  }

  #letsIn(state) {
    return this.#users === 0 || state === this.#state;
  }

  #enter(state) {
    if (this.#users++ > 0) return;
    this.#state = state;
    try {
      this.#ready = this.#begin(state, true);
    } catch (error) {
      this.#ready = Promise.reject(error);
    }
    if (this.#ready === undefined) return;
    this.#changing = true;
    this.#ready = this.#ready.finally(() => { this.#changing = false; });
  }

  #leave() {
    if (--this.#users === 0) this.#end();
    while (this.#queue.length > 0 && this.#letsIn(this.#queue[0].state)) {
      const { state, entered } = this.#queue.shift();
      this.#enter(state);
      entered();
    }
  }
}

let before;   // where the host was, if we left it
let entered;  // where we went

function here() {
  try {
    return process.cwd();
  } catch {
    return undefined;  // it is gone
  }
}

function enter(home) {
  const place = here();
  process.chdir(home);
  before = place;
  entered = here();
}

// Where the host has changed to meanwhile stays, and a place that is gone cannot be gone back to:
// neither is a failure of the call.
function leave() {
  const place = before;
  before = undefined;
  if (place === undefined || here() !== entered) return;
  try {
    process.chdir(place);
  } catch {
    // gone
  }
}

/** Where the host is, also while a call is in a home. */
function hostDirectory() {
  return before !== undefined && here() === entered ? before : process.cwd();
}

/** The current directory of the process; its states are absolute paths. */
const currentDirectory = new Shared(enter, leave);

// Runs `work` in a new directory that goes with it: what the library writes there nobody wants.
const newDirectory = () => fs.mkdtempSync(path.join(os.tmpdir(), 'tessera-'));
const remove = (directory) => fs.rmSync(directory, { recursive: true });

function inNowhereNow(work) {
  const nowhere = newDirectory();
  try {
    return currentDirectory.useNow(nowhere, work);
  } finally {
    remove(nowhere);
  }
}

async function inNowhere(work) {
  const nowhere = newDirectory();
  try {
    return await currentDirectory.use(nowhere, work);
  } finally {
    remove(nowhere);
  }
}

module.exports = { Shared, currentDirectory, hostDirectory, inNowhere, inNowhereNow };
