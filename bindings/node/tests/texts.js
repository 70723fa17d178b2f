// Texts that look written, the same on every run; directories for the tests; and what memory a loop
// leaves behind.
'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const v8 = require('node:v8');
const vm = require('node:vm');

const WORDS = ('the of and to in is for that with contract supplier customer delivery payment schedule '
  + 'quarter revenue forecast employee salary merger board meeting minutes approval budget '
  + 'estimate drawing pump valve pressure test report sample patent claim licence source '
  + 'release server network password account balance invoice').split(' ');

/** So many words; of two seeds two texts without a passage in common. */
function prose(count, seed) {
  const text = [];
  let state = (Math.imul(seed, 2654435761) + 1) >>> 0;
  for (let i = 0; i < count; ++i) {
    state = (Math.imul(state, 1103515245) + 12345) >>> 0;
    text.push(WORDS[Math.floor(state / 65536) % WORDS.length], i % 12 === 11 ? '.\n' : ' ');
  }
  return text.join('');
}

/** A directory that goes with the test. */
function temporary(t) {
  const directory = fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), 'tessera-test-')));
  t.after(() => fs.rmSync(directory, { recursive: true, force: true }));
  return directory;
}

v8.setFlagsFromString('--expose-gc');
const collectGarbage = vm.runInNewContext('gc');

/** What the process occupies without garbage. */
function memory() {
  collectGarbage();
  collectGarbage();  // waits for what the first one frees in the background
  return process.memoryUsage().rss;
}

/** Fails when something that is repeated leaves half as much memory as blocks of `size` bytes would. */
function staysWhen(times, size, action) {
  for (let i = 0; i < times / 3; ++i) action();  // what a first use needs
  const before = memory();
  for (let i = 0; i < times; ++i) action();
  const grown = memory() - before;
  assert.ok(grown < times * size / 2, `${times} times ${size} left ${grown} bytes`);
}

module.exports = { prose, staysWhen, temporary };
