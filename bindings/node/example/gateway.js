// A gateway in small: indexes a folder of confidential texts, then answers over HTTP whether a text
// quotes one of them.
//
//   node gateway.js HOME FOLDER [PORT]
//
// HOME is a directory that keeps the index; it is made when it is missing. A text that is posted to
// "/" is answered with {"blocked": true or false, "documents": [{"name", "level"}]}. Whatever could not
// be inspected gets an error status and must not leave.
'use strict';

const fs = require('node:fs');
const http = require('node:http');
const path = require('node:path');
const { IndexSession, MatchLevel, MatchSession, TesseraError, signatures, signaturesAsync } = require('tessera');

const LARGEST_BODY = 64 << 20;

/** Indexes the files of a folder, anew at every start. The number of a document is its place in the
 * list that is returned. */
async function index(home, folder) {
  const names = fs.readdirSync(folder).sort();
  const session = await IndexSession.open(home);
  try {
    for (const [number, name] of names.entries()) {
      const list = signatures(fs.readFileSync(path.join(folder, name)));
      if (list.length === 0) {
        console.log(`${name}: too short to be recognised`);
        continue;
      }
      session.delete(number);  // what an earlier start put there
      session.add(number, list);
    }
  } finally {
    await session.closeAsync();  // saves
  }
  return names;
}

async function bodyOf(request) {
  const chunks = [];
  let size = 0;
  for await (const chunk of request) {
    size += chunk.length;
    if (size > LARGEST_BODY) return undefined;
    chunks.push(chunk);
  }
  return Buffer.concat(chunks);
}

async function inspect(session, names, text) {
  const matches = await session.matchAsync(await signaturesAsync(text));
  const documents = matches
    .filter(({ fileId, level }) => level > MatchLevel.TRACE && names[fileId] !== undefined)
    .map(({ fileId, level }) => ({ name: names[fileId], level }));
  return { blocked: documents.length > 0, documents };
}

async function answer(session, names, request) {
  if (request.method !== 'POST') return [405, { error: 'post a text' }];
  const text = await bodyOf(request);
  if (text === undefined) return [413, { error: 'too large to be inspected' }];
  try {
    return [200, await inspect(session, names, text)];
  } catch (error) {
    if (!(error instanceof TesseraError)) throw error;
    return [503, { error: error.message }];
  }
}

async function main([home, folder, port = '8080']) {
  if (home === undefined || folder === undefined) {
    console.error('usage: node gateway.js HOME FOLDER [PORT]');
    process.exitCode = 2;
    return;
  }
  fs.mkdirSync(home, { recursive: true });
  const names = await index(home, folder);
  const session = await MatchSession.open(home);
  const server = http.createServer((request, response) => {
    answer(session, names, request).then(([status, verdict]) => {
      response.writeHead(status, { 'content-type': 'application/json', connection: 'close' });
      response.end(JSON.stringify(verdict));
    }, (error) => response.destroy(error));
  });
  server.listen(Number(port), '127.0.0.1', () => console.log(`listening on port ${server.address().port}`));
  process.once('SIGTERM', () => server.close(() => session.closeAsync()));
}

main(process.argv.slice(2)).catch((error) => {
  console.error(`gateway: ${error.message}`);
  process.exitCode = 2;
});
