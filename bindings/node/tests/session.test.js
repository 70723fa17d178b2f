// Index and matching from one end to the other, and what they refuse.
'use strict';

const assert = require('node:assert/strict');
const { spawn, spawnSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const { test } = require('node:test');
const { IndexSession, MatchLevel, MatchSession, TesseraError, binarySignatures, signatures,
        signaturesAsync } = require('tessera');
const { prose, staysWhen, temporary } = require('./texts');

const texts = Array.from({ length: 8 }, (_, i) => prose(1200, 100 + i));

function index(home, ...fileIds) {
  const session = new IndexSession(home);
  fileIds.forEach((fileId, i) => session.add(fileId, signatures(texts[i % texts.length])));
  session.close();
}

/** Runs `work` with a session, which is closed whatever happens. */
function within(session, work) {
  try {
    return work(session);
  } finally {
    session.close();
  }
}

const told = (matches) => matches.map(({ fileId, level }) => `${fileId}:${level}`).join(' ');
const found = (session, text, options) => told(session.match(signatures(text), options));
const failure = (name, code = 'TESSERA_FAILED', status = 1) => (error) => {
  assert.ok(error instanceof TesseraError && error instanceof Error, String(error));
  assert.deepEqual([error.function, error.code, error.status], [name, code, status]);
  return true;
};

test('a copy and an excerpt are found and an unrelated text is not', (t) => {
  const home = temporary(t);
  index(home, 100, 101, 102);
  within(new MatchSession(home), (session) => {
    assert.equal(found(session, texts[1]), '101:2');
    assert.equal(found(session, texts[2].slice(1000, 3500)), '102:2');
    assert.equal(found(session, prose(1200, 999)), '');
  });
});

test('levels grade, and ungraded all are strong', (t) => {
  const home = temporary(t);
  index(home, 5);
  const around = (passage) => prose(9000, 500) + passage + prose(9000, 501);
  within(new MatchSession(home), (session) => {
    assert.equal(found(session, around(texts[0].slice(0, 900))), `5:${MatchLevel.WEAK}`);
    assert.equal(found(session, around(texts[0].slice(0, 250))), `5:${MatchLevel.TRACE}`);
    assert.equal(found(session, around(texts[0].slice(0, 250)), { graded: false }), `5:${MatchLevel.STRONG}`);
  });
});

// At most five are named for one source, but each file ID is a source of its own.
test('a text under many file IDs names them all, in the order of their sources', (t) => {
  const home = temporary(t);
  const list = signatures(texts[0]);
  within(new IndexSession(home), (session) => {
    for (const fileId of [2147483646, 3, 2, 1, 0, -2, -2147483648]) session.add(fileId, list);
  });
  within(new MatchSession(home), (session) => {
    assert.equal(told(session.match(list)), '-2147483648:2 -2:2 0:2 1:2 2:2 3:2 2147483646:2');
  });
});

test('a deleted document is forgotten and a missing one is no failure', (t) => {
  const home = temporary(t);
  index(home, 1, 2, 3);
  within(new IndexSession(home), (session) => {
    session.delete([1, 77]);
    session.delete([]);
    session.delete(2);
    session.add(2, signatures(texts[5]));
  });
  within(new MatchSession(home), (session) => {
    assert.deepEqual([0, 1, 5, 2].map((i) => found(session, texts[i])), ['', '', '2:2', '3:2']);
  });
});

test('a pending document is not deleted', (t) => {
  const home = temporary(t);
  within(new IndexSession(home), (session) => {
    session.add(1, signatures(texts[0]));
    session.delete(1);
  });
  within(new MatchSession(home), (session) => assert.equal(found(session, texts[0]), '1:2'));
});

test('a pending file ID is refused with its status, and its first addition stands', (t) => {
  const home = temporary(t);
  within(new IndexSession(home), (session) => {
    session.add(1, signatures(texts[0]));
    assert.throws(() => session.add(1, signatures(texts[1])), failure('AddDocSignature', 'TESSERA_PENDING', 2));
  });
  within(new MatchSession(home), (session) => {
    assert.deepEqual([0, 1].map((i) => found(session, texts[i])), ['1:2', '']);
  });
});

test('file IDs out of bounds are refused', (t) => {
  const list = signatures(texts[0]);
  within(new IndexSession(temporary(t)), (session) => {
    for (const fileId of [-1, 2147483647, -2147483649, Number.MAX_SAFE_INTEGER]) {
      assert.throws(() => session.add(fileId, list), failure('AddDocSignature'));
    }
    for (const fileId of [1.5, NaN, 2 ** 53, '1', undefined, 1n]) {
      assert.throws(() => session.add(fileId, list), TypeError);
      assert.throws(() => session.delete([fileId]), TypeError);
    }
    session.add(1, list);
    assert.throws(() => session.delete(Number.MAX_SAFE_INTEGER), failure('DelDocSignature'));
  });
});

test('a document needs a signature and a query does not', (t) => {
  const home = temporary(t);
  within(new IndexSession(home), (session) => {
    assert.throws(() => session.add(1, []), RangeError);
    assert.throws(() => session.add(1, 'text'), TypeError);
    assert.throws(() => session.add(1, [Buffer.alloc(7)]), TypeError);
    session.add(1, signatures(texts[0]));
  });
  within(new MatchSession(home), (session) => {
    assert.deepEqual(session.match([]), []);
    assert.throws(() => session.match(), TypeError);
    assert.throws(() => session.match([[1, 2, 3, 4, 5, 6, 7, 8]]), TypeError);
  });
});

test('the order of a query does not matter and it is left alone', (t) => {
  const home = temporary(t);
  index(home, 1, 2);
  const query = signatures(texts[1]).reverse();
  const before = [...query];
  within(new MatchSession(home), (session) => assert.equal(told(session.match(query)), '2:2'));
  assert.deepEqual(query, before);
});

test('the root document is in every index', (t) => {
  const home = temporary(t);
  index(home);
  within(new MatchSession(home), (session) => {
    assert.equal(told(session.match([Buffer.alloc(8, 255)])), '-1:2');
  });
});

test('an image is found by its exact bytes', (t) => {
  const home = temporary(t);
  const image = Buffer.from(Array.from({ length: 40000 }, (_, i) => Math.floor(i * i / 7) & 255));
  within(new IndexSession(home), (session) => session.add(9, binarySignatures(image)));
  within(new MatchSession(home), (session) => {
    assert.equal(told(session.match(binarySignatures(image))), '9:2');
    assert.equal(told(session.match(binarySignatures(image.subarray(1)))), '');
  });
});

test('every result is freed', (t) => {
  const home = temporary(t);
  const list = binarySignatures(Buffer.from('123'));
  within(new IndexSession(home), (session) => {
    for (let i = 0; i < 500; ++i) session.add(i, list);
  });
  within(new MatchSession(home), (session) => {
    assert.equal(session.match(list).length, 500);
    staysWhen(4000, 500 * 16, () => session.match(list));
  });
});

test('a home must exist and hold an index to be matched', async (t) => {
  const home = temporary(t);
  assert.throws(() => new MatchSession(home), failure('InitMatchSystem'));
  await assert.rejects(MatchSession.open(home), failure('InitMatchSystem'));
  index(home, 1);  // and the failures did not take the place of a session
  new MatchSession(home).close();
  for (const Kind of [IndexSession, MatchSession]) {
    assert.throws(() => new Kind(path.join(home, 'missing')), { code: 'ENOENT' });
    assert.throws(() => new Kind(path.join(home, 'index_sys_config.txt')), TypeError);
    assert.throws(() => new Kind(), TypeError);
    await assert.rejects(Kind.open(path.join(home, 'missing')), { code: 'ENOENT' });
  }
});

test('a configuration that is there is left as it is, and a malformed one is refused', (t) => {
  const home = temporary(t);
  const file = path.join(home, 'index_sys_config.txt');
  fs.writeFileSync(file, 'max_fid_num=7\n');
  index(home, 1);
  assert.equal(fs.readFileSync(file, 'utf8'), 'max_fid_num=7\n');
  fs.writeFileSync(file, 'no assignment\n');
  assert.throws(() => new IndexSession(home), failure('InitIndexSystem'));
});

test('a second session of its kind is refused', async (t) => {
  const home = temporary(t);
  const other = temporary(t);
  index(home, 1);
  index(other, 1);
  for (const Kind of [IndexSession, MatchSession]) {
    const session = new Kind(home);
    assert.throws(() => new Kind(other), failure('', 'TESSERA_ALREADY_OPEN'));
    await assert.rejects(Kind.open(other), failure('', 'TESSERA_ALREADY_OPEN'));
    session.close();
    new Kind(other).close();
  }
});

test('an index that another process has open is refused', async (t) => {
  const home = temporary(t);
  const script = `const { IndexSession } = require('tessera');
    const index = new IndexSession(${JSON.stringify(home)});
    console.log('open');
    process.stdin.on('end', () => index.close()).resume();`;
  const holder = spawn(process.execPath, ['-e', script], { cwd: __dirname, stdio: ['pipe', 'pipe', 'inherit'] });
  await new Promise((resolve) => holder.stdout.once('data', resolve));
  assert.throws(() => new IndexSession(home), failure('InitIndexSystem'));
  holder.stdin.end();
  assert.equal(await new Promise((resolve) => holder.once('exit', resolve)), 0);
  new IndexSession(home).close();
});

test('a closed session is no longer used', async (t) => {
  const home = temporary(t);
  const session = new IndexSession(home);
  assert.equal(session.isOpen, true);
  session.add(1, signatures(texts[0]));
  session.close();
  session.close();
  await session.closeAsync();
  assert.equal(session.isOpen, false);
  const closed = failure('', 'TESSERA_CLOSED');
  assert.throws(() => session.add(2, signatures(texts[1])), closed);
  assert.throws(() => session.delete(1), closed);
  assert.throws(() => session.setMaxTableSize(1), closed);
  await assert.rejects(session.addAsync(2, signatures(texts[1])), closed);

  const first = new MatchSession(home);
  first.close();
  within(new MatchSession(home), () => {  // an old session does not speak for a new one
    first.close();
    assert.throws(() => first.match([]), closed);
  });
  await assert.rejects(first.matchAsync([]), closed);
});

test('a session that was opened before a save refuses', (t) => {
  const home = temporary(t);
  index(home, 1);
  within(new MatchSession(home), (session) => {
    assert.equal(found(session, texts[0]), '1:2');
    within(new IndexSession(home), (other) => other.add(2, signatures(texts[1])));
    assert.throws(() => found(session, texts[0]), failure('MatchSignature'));
  });
  within(new MatchSession(home), (session) => assert.equal(found(session, texts[0]), '1:2'));
});

test('one home is matched while another is indexed', async (t) => {
  const blue = temporary(t);
  const green = temporary(t);
  index(blue, 1);
  const session = new MatchSession(blue);
  const next = await IndexSession.open(green);
  const matches = Array.from({ length: 50 }, async () => session.matchAsync(await signaturesAsync(texts[0])));
  await Promise.all([next.addAsync(2, signatures(texts[1])), next.addAsync(3, signatures(texts[2]))]);
  const [, ...answers] = await Promise.all([next.closeAsync(), ...matches]);
  for (const answer of answers) assert.equal(told(answer), '1:2');
  await session.closeAsync();
  within(new MatchSession(green), (other) => assert.equal(found(other, texts[1]), '2:2'));
});

test('a full table refuses additions', (t) => {
  const home = temporary(t);
  fs.writeFileSync(path.join(home, 'index_sys_config.txt'), 'search_table_fname = "sig_table"\n');
  within(new IndexSession(home), (session) => {
    session.setMaxTableSize(1);
    session.add(1, signatures(texts[0]));  // there is no table yet
  });
  within(new IndexSession(home), (session) => {
    assert.throws(() => session.add(2, signatures(texts[1])), failure('AddDocSignature'));
    for (const bytes of [-1, 2 ** 32, 1.5]) assert.throws(() => session.setMaxTableSize(bytes), RangeError);
    session.setMaxTableSize(0x80000000);
    session.add(2, signatures(texts[1]));
  });
});

test('the current directory is the host\'s again after each call', async (t) => {
  const home = temporary(t);
  const before = process.cwd();
  const session = new IndexSession(home);
  assert.equal(process.cwd(), before);
  session.add(1, signatures(texts[0]));
  assert.equal(process.cwd(), before);
  await session.closeAsync();
  assert.equal(process.cwd(), before);
  assert.throws(() => new MatchSession(temporary(t)));
  await assert.rejects(MatchSession.open(temporary(t)));
  assert.equal(process.cwd(), before);
  assert.ok(!fs.existsSync('sig_index_DB') && fs.existsSync(path.join(home, 'sig_index_DB')));
});

test('closing waits for asynchronous calls, or says that it cannot', async (t) => {
  const home = temporary(t);
  index(home, 1);
  const session = new MatchSession(home);
  const query = signatures(texts[0]);
  const matches = Array.from({ length: 40 }, () => session.matchAsync(query));
  assert.throws(() => session.close(), failure('', 'TESSERA_BUSY'));
  assert.throws(() => new IndexSession(temporary(t)), failure('', 'TESSERA_BUSY'));
  const closing = [session.closeAsync(), session.closeAsync()];
  assert.throws(() => session.match(query), failure('', 'TESSERA_CLOSED'));
  await Promise.all(closing);
  for (const answer of await Promise.all(matches)) assert.equal(told(answer), '1:2');
  new MatchSession(home).close();
});

test('closing saves the additions that run', async (t) => {
  const home = temporary(t);
  const lists = texts.map((text) => signatures(text));
  for (let round = 0; round < 10; ++round) {
    const session = new IndexSession(home);
    session.delete(lists.map((_, i) => i));
    const additions = lists.map((list, i) => session.addAsync(i, list));
    await Promise.all([session.closeAsync(), ...additions]);
  }
  within(new MatchSession(home), (session) => {
    assert.deepEqual(lists.map((list) => told(session.match(list))), lists.map((_, i) => `${i}:2`));
  });
});

test('sessions can be disposed of where the language has it', { skip: !Symbol.asyncDispose }, async (t) => {
  const home = temporary(t);
  const session = new IndexSession(home);
  session[Symbol.dispose]();
  assert.equal(session.isOpen, false);
  const other = new IndexSession(home);
  await other[Symbol.asyncDispose]();
  assert.equal(other.isOpen, false);
});

test('a session whose home is gone can be closed, and an index tells it', async (t) => {
  const root = temporary(t);
  const home = path.join(root, 'home');
  const before = process.cwd();
  for (const how of ['close', 'closeAsync']) {
    fs.mkdirSync(home);
    index(home, 1);
    const session = new MatchSession(home);
    const writer = new IndexSession(home);
    writer.add(2, signatures(texts[1]));
    fs.renameSync(home, path.join(root, how));
    assert.throws(() => writer.add(3, signatures(texts[2])), { code: 'ENOENT' });
    await assert.rejects(async () => writer[how](), failure('ExitIndexSystem'));
    await session[how]();
    assert.deepEqual([writer.isOpen, session.isOpen, process.cwd()], [false, false, before]);
  }
  fs.mkdirSync(home);
  index(home, 1);
  new MatchSession(home).close();
});

test('a link is followed once', { skip: process.platform === 'win32' }, (t) => {
  const home = temporary(t);
  const other = temporary(t);
  const link = path.join(temporary(t), 'link');
  index(home, 1);
  index(other, 2, 3);
  fs.symlinkSync(home, link);
  within(new MatchSession(link), (session) => within(new IndexSession(link), (writer) => {
    assert.equal(session.home, home);
    fs.unlinkSync(link);
    fs.symlinkSync(other, link);
    assert.equal(found(session, texts[0]), '1:2');
    writer.add(9, signatures(texts[7]));
  }));
  within(new MatchSession(home), (session) => assert.equal(found(session, texts[7]), '9:2'));
  within(new MatchSession(other), (session) => assert.equal(found(session, texts[0]), '2:2'));
});

test('the name of a home is the host\'s, also while a call runs elsewhere', async (t) => {
  const root = temporary(t);
  const before = process.cwd();
  t.after(() => process.chdir(before));
  process.chdir(root);
  ['blue', 'green'].forEach((home, i) => {
    fs.mkdirSync(home);
    index(home, i);
  });
  const session = new MatchSession('blue');
  const matching = session.matchAsync(signatures(texts[0]));
  assert.equal(process.cwd(), session.home);
  const writer = await IndexSession.open('green');
  assert.equal(writer.home, path.join(root, 'green'));
  assert.equal(told(await matching), '0:2');
  writer.close();
  session.close();
});

test('a lost batch is told by closing', { skip: process.platform === 'win32' }, (t) => {
  const home = temporary(t);
  const script = `const { IndexSession, signatures } = require('tessera');
    const { prose } = require('./texts');
    const index = new IndexSession(${JSON.stringify(home)});
    for (let i = 0; i < 20; ++i) index.add(i, signatures(prose(20000, i)));
    try { index.close(); } catch (error) { console.log(error.function, error.status, index.isOpen); }`;
  // Files may not grow beyond 300 blocks of 512 bytes: a disk that is full.
  const { stdout } = spawnSync('/bin/sh', ['-c', `trap '' XFSZ; ulimit -f 300; exec "$0" -e "$1"`,
                                           process.execPath, script], { cwd: __dirname, encoding: 'utf8' });
  assert.equal(stdout, 'ExitIndexSystem 1 false\n');
  index(home, 1);
  within(new MatchSession(home), (session) => assert.equal(found(session, texts[0]), '1:2'));
});
