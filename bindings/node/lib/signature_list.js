// Lists of signatures as a host has them, arrays of 8 bytes each, and as the library has them:
// one after the other.
'use strict';

const SIZE = 8;

function unpack(bytes) {
  const list = new Array(bytes.length / SIZE);
  for (let i = 0; i < list.length; ++i) list[i] = bytes.subarray(i * SIZE, (i + 1) * SIZE);
  return list;
}

/** The bytes of a list, in ascending order: the library does not find all of another. */
function pack(list) {
  if (!Array.isArray(list)) throw new TypeError('signatures must be an array');
  if (!list.every((signature) => signature instanceof Uint8Array && signature.length === SIZE)) {
    throw new TypeError('each signature must be a Buffer or Uint8Array of 8 bytes');
  }
  return Buffer.concat([...list].sort(Buffer.compare));
}

module.exports = { SIZE, pack, unpack };
