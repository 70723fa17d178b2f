// What is shared by the whole process: who waits for whom, and the current directory.
'use strict';

const assert = require('node:assert/strict');
const { test } = require('node:test');
const { Shared, currentDirectory } = require('tessera/lib/shared');
const { temporary } = require('./texts');

/** Something to wait for, and what ends the wait. */
function gate() {
  let open;
  const opened = new Promise((resolve) => { open = resolve; });
  return { opened, open };
}

test('nobody overtakes who waits', async () => {
  const log = [];
  const shared = new Shared((state) => { log.push(state); });
  const { opened, open } = gate();
  const first = shared.use('a', () => opened);
  const calls = [shared.use('b', () => log.push('in b')), shared.use('a', () => log.push('in a'))];
  await new Promise(setImmediate);
  assert.deepEqual(log, ['a']);
  open();
  await Promise.all([first, ...calls]);
  assert.deepEqual(log, ['a', 'b', 'in b', 'a', 'in a']);
});

test('a synchronous use is refused while its state is made, and let in then', async () => {
  const { opened, open } = gate();
  const shared = new Shared((state, wait) => (wait ? opened : undefined));
  const work = gate();
  const first = shared.use('a', () => work.opened);
  assert.throws(() => shared.useNow('a', () => 1), { code: 'TESSERA_BUSY' });
  open();
  await new Promise(setImmediate);
  assert.equal(shared.useNow('a', () => 2), 2);
  work.open();
  await first;
});

test('a state that cannot be made fails its users, and leaves the others free', async () => {
  const shared = new Shared((state) => { if (state === 'bad') throw new Error(state); });
  const good = Promise.all([shared.use('bad', () => 1), shared.use('good', () => 2)].map(
    (call) => call.catch((error) => error.message)));
  assert.deepEqual(await good, ['bad', 2]);
  assert.throws(() => shared.useNow('bad', () => 1), /bad/);
  assert.equal(shared.useNow('good', () => 3), 3);
});

test('a directory that the host changed to during a call is left alone', async (t) => {
  const before = process.cwd();
  const home = temporary(t);
  const other = temporary(t);
  t.after(() => process.chdir(before));
  await currentDirectory.use(home, async () => {
    assert.equal(process.cwd(), home);
    process.chdir(other);
  });
  assert.equal(process.cwd(), other);
  await currentDirectory.use(home, () => {});
  assert.equal(process.cwd(), other);
});
