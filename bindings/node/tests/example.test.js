// The example host and the tour of the README, as their users run them.
'use strict';

const assert = require('node:assert/strict');
const { spawn, spawnSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const { test } = require('node:test');
const { prose, temporary } = require('./texts');

const GATEWAY = require.resolve('tessera/example/gateway.js');

async function start(t, home, folder) {
  const gateway = spawn(process.execPath, [GATEWAY, home, folder, '0'], { stdio: ['ignore', 'pipe', 'inherit'] });
  const ended = new Promise((resolve) => gateway.once('exit', resolve));
  t.after(() => gateway.kill('SIGKILL'));
  let output = '';
  for await (const chunk of gateway.stdout) {
    output += chunk;
    const [, port] = /listening on port (\d+)/.exec(output) ?? [];
    if (port !== undefined) {
      return { output, url: `http://127.0.0.1:${port}/`, stop: () => { gateway.kill('SIGTERM'); return ended; } };
    }
  }
  throw new Error(`the gateway ended: ${output}`);
}

test('the gateway blocks a quote and lets another text pass, at every start', async (t) => {
  const home = path.join(temporary(t), 'index');
  const folder = temporary(t);
  fs.writeFileSync(path.join(folder, 'contract.txt'), prose(1000, 1));
  fs.writeFileSync(path.join(folder, 'minutes.txt'), prose(1000, 2));
  fs.writeFileSync(path.join(folder, 'note.txt'), 'short');
  const quote = `Dear Tom,\n${prose(1000, 2).slice(2000, 4500)}`;
  for (let i = 0; i < 2; ++i) {
    const { url, output, stop } = await start(t, home, folder);
    assert.match(output, /note.txt: too short/);
    const ask = async (body) => (await fetch(url, { method: 'POST', body })).json();
    const answers = await Promise.all([quote, prose(500, 77), '', quote].map(ask));
    const blocked = { blocked: true, documents: [{ name: 'minutes.txt', level: 2 }] };
    const passed = { blocked: false, documents: [] };
    assert.deepEqual(answers, [blocked, passed, passed, blocked]);
    assert.equal((await fetch(url)).status, 405);
    if (i === 1) {  // what cannot be inspected does not pass
      fs.rmSync(path.join(home, 'sig_index_DB'), { recursive: true });
      const refused = await fetch(url, { method: 'POST', body: quote });
      assert.equal(refused.status, 503);
      assert.match((await refused.json()).error, /^MatchSignature returned 1/);
    }
    assert.equal(await stop(), 0);
  }
});

test('the gateway tells what is wrong', (t) => {
  const run = (...args) => spawnSync(process.execPath, [GATEWAY, ...args], { encoding: 'utf8' });
  assert.match(run().stderr, /^usage/);
  const { status, stderr } = run(temporary(t), path.join(temporary(t), 'missing'));
  assert.equal(status, 2);
  assert.match(stderr, /^gateway: ENOENT/);
});

test('the tour of the README does what it says', (t) => {
  const readme = fs.readFileSync(path.join(path.dirname(GATEWAY), '..', 'README.md'), 'utf8');
  const [, tour] = /```js\n([^]*?)```/.exec(readme);
  const [, output] = /prints `([^`]*)`/.exec(readme);
  const directory = temporary(t);
  fs.mkdirSync(path.join(directory, 'node_modules'));
  fs.symlinkSync(path.join(path.dirname(GATEWAY), '..'), path.join(directory, 'node_modules', 'tessera'));
  fs.writeFileSync(path.join(directory, 'tour.js'), tour);
  const { stdout, stderr } = spawnSync(process.execPath, ['tour.js'], { cwd: directory, encoding: 'utf8' });
  assert.equal(stdout + stderr, `${output}\n`);
});
