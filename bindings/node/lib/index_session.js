// The index of a home, open for writing.
'use strict';

const fs = require('node:fs');
const path = require('node:path');
const { TesseraError, require0 } = require('./errors');
const { DEFAULT_CONTENT_SIZE } = require('./generator');
const native = require('./native');
const { Session } = require('./session');
const { SIZE, pack } = require('./signature_list');

const KIND = {
  name: 'index',
  begin: 'InitIndexSystem',
  end: 'ExitIndexSystem',
  endsAnyway: true,
  // The library needs a configuration file; this is what its generator makes.
  prepare(home) {
    const file = path.join(home, 'index_sys_config.txt');
    if (!fs.existsSync(file)) fs.writeFileSync(file, `max_content_size=${DEFAULT_CONTENT_SIZE}\n`);
  },
  beginFailed: (home, status) => new TesseraError(
    `InitIndexSystem returned ${status}: the index in ${home} is open elsewhere or damaged, its `
    + 'configuration is malformed, or its files cannot be written',
    { status, function: 'InitIndexSystem' }),
  endFailed: (home, status) => new TesseraError(
    `ExitIndexSystem returned ${status}: what was pending, or deletions before, could not be written `
    + `and is lost, or ${home} is gone; the index is closed, as it was after its last batch`,
    { status, function: 'ExitIndexSystem' }),
};

function fileIdOf(fileId) {
  if (!Number.isSafeInteger(fileId)) throw new TypeError('a file ID must be a whole number');
  return fileId;
}

function additionArguments(fileId, signatures) {
  const list = pack(signatures);
  if (list.length === 0) throw new RangeError('a document needs at least one signature');
  return [fileIdOf(fileId), list, list.length / SIZE];
}

function checkAddition(fileId) {
  return (status) => {
    if (status === 2) {
      require0('AddDocSignature', 2, `file ID ${fileId} is pending already`, 'TESSERA_PENDING');
    }
    require0('AddDocSignature', status, `file ID ${fileId} is -1 or too far from the base of the index, `
      + 'the index has reached its largest size, memory ran out, or the disk failed');
  };
}

function deletionArguments(fileIds) {
  const listed = Array.isArray(fileIds) ? fileIds : [fileIds];
  const list = BigInt64Array.from(listed, (fileId) => BigInt(fileIdOf(fileId)));
  return [native.notEmpty(list), list.length];
}

function checkDeletion(status) {
  require0('DelDocSignature', status, 'memory ran out, or a file ID is too far from the base of the '
    + 'index; those before it are removed');
}

class IndexSession extends Session {
  constructor(home, when) {
    super(KIND, home, when);
  }

  add(fileId, signatures) {
    this.call('AddDocSignature', additionArguments(fileId, signatures), checkAddition(fileId));
  }

  async addAsync(fileId, signatures) {
    await this.callAsync('AddDocSignature', additionArguments(fileId, signatures), checkAddition(fileId));
  }

  delete(fileIds) {
    this.call('DelDocSignature', deletionArguments(fileIds), checkDeletion);
  }

  async deleteAsync(fileIds) {
    await this.callAsync('DelDocSignature', deletionArguments(fileIds), checkDeletion);
  }

  setMaxTableSize(bytes) {
    if (!Number.isInteger(bytes) || bytes < 0 || bytes > 0xffffffff) {
      throw new RangeError('bytes must be 0 to 4294967295');
    }
    this.mustBeIdle();
    this.call('setMaxStblSize', [bytes], () => {});
  }
}

module.exports = { IndexSession };
