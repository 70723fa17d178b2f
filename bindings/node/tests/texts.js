// Texts that look written, the same on every run; directories for the tests; and what memory a loop
// leaves behind.
'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');

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

/** Fails when something that is repeated leaves more than 8 MiB of memory. */
function staysWhen(times, action) {
  for (let i = 0; i < times / 3; ++i) action();  // what a first use needs
  const before = process.memoryUsage().rss;
  for (let i = 0; i < times; ++i) action();
  const grown = process.memoryUsage().rss - before;
  assert.ok(grown < 8 << 20, `${times} times left ${grown} bytes`);
}

module.exports = { prose, staysWhen, temporary };
