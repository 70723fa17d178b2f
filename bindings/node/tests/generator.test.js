// Documents to signatures.
'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const { test } = require('node:test');
const { Worker } = require('node:worker_threads');
const { binarySignatures, signatures, signaturesAsync } = require('tessera');
const { prose, staysWhen, temporary } = require('./texts');

const hex = (list) => list.map((signature) => signature.toString('hex')).join(' ');

// First, since memory that other tests have left would take up what is lost.
test('every list is freed', () => {
  const text = Buffer.from(prose(30000, 12));
  staysWhen(2000, 8 * signatures(text).length, () => signatures(text));
});

test('a list is the library\'s own', () => {
  assert.equal(hex(signatures(prose(60, 1))),
               '3a6255775beaf1f0 4789626347eecb00 5e586a4265ea0ff5 735a527537f9e009');
});

test('a list ascends and has no two equal', () => {
  const list = signatures(prose(20000, 2));
  assert.ok(list.length > 500);
  for (let i = 1; i < list.length; ++i) assert.ok(Buffer.compare(list[i - 1], list[i]) < 0, `at ${i}`);
  assert.ok(list.every((signature) => signature.length === 8));
});

test('layout does not matter', () => {
  const text = prose(500, 3);
  assert.equal(hex(signatures(text)), hex(signatures(text.replaceAll(' ', '\r\n\t-- '))));
});

test('a string is taken as UTF-8, and bytes as they are wherever they lie', () => {
  const text = prose(500, 4).replaceAll('e', '\u00e9');
  const bytes = Buffer.from(text);
  assert.equal(hex(signatures(bytes)), hex(signatures(text)));
  const amid = new Uint8Array(bytes.length + 20).fill(0x61);
  amid.set(bytes, 7);
  assert.equal(hex(signatures(amid.subarray(7, 7 + bytes.length))), hex(signatures(text)));
  assert.notEqual(hex(signatures(text)), hex(signatures(prose(500, 4))));
});

test('a text that is too short has no signatures', () => {
  for (const text of ['', Buffer.alloc(0), 'a'.repeat(60), '.'.repeat(100000)]) {
    assert.deepEqual(signatures(text), []);
  }
});

test('the server takes fewer of the same', () => {
  const text = prose(20000, 5);
  const client = signatures(text);
  const server = signatures(text, { platform: 'server' });
  assert.ok(server.length > 0 && server.length < client.length);
  const known = new Set(client.map((signature) => signature.toString('hex')));
  assert.ok(server.every((signature) => known.has(signature.toString('hex'))));
  assert.equal(hex(signatures(text)), hex(client));
});

test('only the maximum content size is looked at', () => {
  const text = prose(300000, 6);
  const bounded = signatures(text, { maxContentSize: 1 << 20 });
  const head = text.replaceAll(/[^a-z]/g, '').slice(0, 1 << 20);
  assert.equal(hex(bounded), hex(signatures(head)));
  assert.ok(bounded.length < signatures(text).length);
});

test('a content has one signature, of its bytes and its length', () => {
  const content = Buffer.from(Array.from({ length: 40000 }, (_, i) => Math.floor(i * i / 7) & 255));
  assert.equal(hex(binarySignatures(content)), '33d0844f39633430');
  assert.notEqual(hex(binarySignatures(content.subarray(1))), '33d0844f39633430');
  assert.deepEqual(binarySignatures(Buffer.alloc(0)), []);
  assert.equal(hex(binarySignatures(Buffer.alloc(10))), hex(binarySignatures(Buffer.alloc(10 + 65536))));
});

test('arguments that cannot be meant are refused', async () => {
  assert.throws(() => signatures(5), TypeError);
  assert.throws(() => signatures(), TypeError);
  assert.throws(() => binarySignatures('text'), TypeError);
  assert.throws(() => signatures('', { platform: 'desktop' }), TypeError);
  assert.throws(() => signatures('', { platform: 'toString' }), TypeError);
  for (const maxContentSize of [(1 << 20) - 1, (75 << 20) + 1, NaN, 1.5e6 + 0.5]) {
    assert.throws(() => signatures('', { maxContentSize }), RangeError);
  }
  signatures('', { maxContentSize: 1 << 20 });
  signatures('', { maxContentSize: 75 << 20 });
  await assert.rejects(signaturesAsync(null), TypeError);
});

// A length is an int for the library: of a larger one it would say that there is no document.
test('lengths end where those of the library do', async () => {
  const huge = new Uint8Array(2 ** 31);
  assert.throws(() => signatures(huge), RangeError);
  assert.throws(() => binarySignatures(huge), RangeError);
  await assert.rejects(signaturesAsync(huge), RangeError);
  assert.equal(binarySignatures(huge.subarray(1)).length, 1);
});

test('nothing is left in the current directory', (t) => {
  const before = process.cwd();
  const directory = temporary(t);
  process.chdir(directory);
  try {
    signatures(prose(100, 7), { platform: 'server', maxContentSize: 2 << 20 });
    assert.deepEqual(fs.readdirSync(directory), []);
    assert.equal(process.cwd(), directory);
  } finally {
    process.chdir(before);
  }
});

test('asynchronous calls give the same, and let the event loop turn', async () => {
  const text = Buffer.alloc(4 << 20, prose(200000, 8));
  const expected = hex(signatures(text));
  let turns = 0;
  const turn = () => { ++turns; next = setImmediate(turn); };
  let next = setImmediate(turn);
  for (let i = 0; i < 10; ++i) assert.equal(hex(await signaturesAsync(text)), expected);
  clearImmediate(next);
  assert.ok(turns >= 9, `the event loop turned ${turns} times`);
});

test('hundreds of asynchronous calls wait for their turn, whatever their options', async () => {
  const text = prose(3000, 9);
  const expected = { client: hex(signatures(text)), server: hex(signatures(text, { platform: 'server' })) };
  const calls = Array.from({ length: 600 }, async (_, i) => {
    const platform = i < 400 || i % 2 === 0 ? 'client' : 'server';
    assert.equal(hex(await signaturesAsync(text, { platform })), expected[platform]);
  });
  await Promise.all(calls);
  assert.equal(hex(signatures(text)), expected.client);
});

test('what happens to the bytes during an asynchronous call does not matter', async () => {
  const text = Buffer.from(prose(200000, 10));
  const expected = hex(signatures(text));
  const promise = signaturesAsync(text);
  text.fill(0);
  assert.equal(hex(await promise), expected);
});

test('a synchronous call that would have to wait is refused', async () => {
  const text = prose(100000, 11);
  const promise = signaturesAsync(text);
  assert.throws(() => signatures(text, { platform: 'server' }), { code: 'TESSERA_BUSY', status: 1 });
  binarySignatures(Buffer.alloc(5));
  await promise;
  signatures(text, { platform: 'server' });
});

test('a worker is refused', async () => {
  const worker = new Worker(`require(${JSON.stringify(require.resolve('tessera'))})`, { eval: true });
  const [error] = await new Promise((resolve) => worker.on('error', (...found) => resolve(found)));
  assert.match(error.message, /main thread only/);
});
