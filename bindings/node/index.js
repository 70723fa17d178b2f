// The package: signatures of documents, an index of them, and matching. index.d.ts is its
// reference.
'use strict';

const { isMainThread } = require('node:worker_threads');

// A worker can neither change the current directory nor see what the others opened.
if (!isMainThread) {
  throw new Error('tessera works in the main thread only; its asynchronous calls use others');
}

const { TesseraError } = require('./lib/errors');
const { signatures, signaturesAsync, binarySignatures } = require('./lib/generator');
const { IndexSession } = require('./lib/index_session');
const { MatchSession, MatchLevel } = require('./lib/match_session');

module.exports = {
  signatures, signaturesAsync, binarySignatures, IndexSession, MatchSession, MatchLevel, TesseraError,
};
