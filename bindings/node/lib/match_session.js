// The search tables of a home, loaded for matching.
'use strict';

const { TesseraError, require0 } = require('./errors');
const native = require('./native');
const { Session } = require('./session');
const { SIZE, pack } = require('./signature_list');

const MatchLevel = Object.freeze({ TRACE: 0, WEAK: 1, STRONG: 2 });
const RECORD_SIZE = 16;  // file ID, 8 bytes; level, 4; four unused

const KIND = {
  name: 'match',
  begin: 'InitMatchSystem',
  end: 'ExitMatchSystem',
  endsAnyway: false,
  prepare() {},
  beginFailed: (home, status) => new TesseraError(
    `InitMatchSystem returned ${status}: the search tables in ${home} are missing, empty or `
    + 'inconsistent, or the configuration cannot be read',
    { status, function: 'InitMatchSystem' }),
  endFailed: (home, status) => new TesseraError(
    `ExitMatchSystem returned ${status}: the tables could not be released`,
    { status, function: 'ExitMatchSystem' }),
};

function search(signatures, { graded = true } = {}) {
  const query = pack(signatures);
  const block = native.blockArguments();
  return {
    // Of the size of the document nothing counts but whether it is 0.
    args: [native.notEmpty(query), query.length / SIZE, graded ? 1 : 0, ...block],
    finish(status) {
      require0('MatchSignature', status, 'the index was saved since the session was opened, its table '
        + 'cannot be read, or memory ran out');
      return records(native.takeBlock(block, RECORD_SIZE, 'FreeSigMatchRet'));
    },
  };
}

function records(bytes) {
  return Array.from({ length: bytes.length / RECORD_SIZE }, (_, i) => ({
    fileId: Number(bytes.readBigInt64LE(i * RECORD_SIZE)),
    level: bytes.readInt32LE(i * RECORD_SIZE + 8),
  }));
}

class MatchSession extends Session {
  constructor(home, when) {
    super(KIND, home, when);
  }

  match(signatures, options) {
    const { args, finish } = search(signatures, options);
    return this.call('MatchSignature', args, finish);
  }

  async matchAsync(signatures, options) {
    const { args, finish } = search(signatures, options);
    return this.callAsync('MatchSignature', args, finish);
  }
}

module.exports = { MatchSession, MatchLevel };
