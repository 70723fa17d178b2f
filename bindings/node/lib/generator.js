// Documents to signatures. The generator of the library has one setting at a time; it stays set
// between calls, since most programs never change it.
'use strict';

const { require0 } = require('./errors');
const native = require('./native');
const { Shared, inNowhere, inNowhereNow } = require('./shared');
const { SIZE, unpack } = require('./signature_list');

const PLATFORMS = { server: 1, client: 2 };
const DEFAULT_CONTENT_SIZE = 6 << 20;
const CONTENT_SIZES = [1 << 20, 75 << 20];
const MOST_BYTES = 2 ** 31 - 1;

const generator = new Shared(set);
let current;  // "platform bytes", undefined while the library's generator is not initialised

function settings({ platform = 'client', maxContentSize = DEFAULT_CONTENT_SIZE } = {}) {
  if (!Object.hasOwn(PLATFORMS, platform)) throw new TypeError("platform must be 'client' or 'server'");
  if (!Number.isInteger(maxContentSize) || maxContentSize < CONTENT_SIZES[0]
      || maxContentSize > CONTENT_SIZES[1]) {
    throw new RangeError('maxContentSize must be 1048576 to 78643200 bytes');
  }
  return `${PLATFORMS[platform]} ${maxContentSize}`;
}

// The library writes the settings into a configuration file in the current directory.
function set(wanted, wait) {
  if (wanted === current) return undefined;
  return (wait ? inNowhere : inNowhereNow)(() => initialise(wanted));
}

function initialise(wanted) {
  const [platform, bytes] = wanted.split(' ').map(Number);
  if (current !== undefined) native.call('ExitSignatureGenerator', []);
  current = undefined;
  require0('InitSignatureGenerator', native.call('InitSignatureGenerator', [platform]), 'memory ran out');
  current = `${platform} ${DEFAULT_CONTENT_SIZE}`;
  require0('SetMaxContentSize', native.call('SetMaxContentSize', [bytes]), 'memory ran out');
  current = wanted;
}

function bytesOf(content, what) {
  if (!(content instanceof Uint8Array)) throw new TypeError(`${what} must be a Buffer or Uint8Array`);
  if (content.length > MOST_BYTES) throw new RangeError(`${what} has more than ${MOST_BYTES} bytes`);
  return content;
}

function textBytes(text) {
  return bytesOf(typeof text === 'string' ? Buffer.from(text) : text, 'text');
}

function callArguments(content) {
  const block = native.blockArguments();
  return { block, args: [native.notEmpty(content), content.length, ...block] };
}

function take(name, status, block) {
  require0(name, status, 'memory ran out');
  return unpack(native.takeBlock(block, SIZE, 'FreeSignature'));
}

function generate(name, content, wanted) {
  const { block, args } = callArguments(content);
  return generator.useNow(wanted, () => take(name, native.call(name, args), block));
}

function signatures(text, options) {
  return generate('GenerateSignature4Text', textBytes(text), settings(options));
}

function binarySignatures(content) {
  // Any setting will do.
  return generate('GenerateSignature4Binary', bytesOf(content, 'content'), current ?? settings());
}

async function signaturesAsync(text, options) {
  const wanted = settings(options);
  // What the host does with its bytes meanwhile must not matter.
  const { block, args } = callArguments(typeof text === 'string' ? Buffer.from(text)
                                                                 : Buffer.from(textBytes(text)));
  return generator.use(wanted, async () => {
    const name = 'GenerateSignature4Text';
    return take(name, await native.callAsync(name, args), block);
  });
}

module.exports = { signatures, signaturesAsync, binarySignatures, DEFAULT_CONTENT_SIZE };
