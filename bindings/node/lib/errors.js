// What went wrong. The library answers with a status and does not say why it refused; the
// messages name the reasons that there are.
'use strict';

class TesseraError extends Error {
  constructor(message, { code = 'TESSERA_FAILED', status = 1, function: name = '' } = {}) {
    super(message);
    this.name = 'TesseraError';
    this.code = code;
    this.status = status;
    this.function = name;
  }
}

/** Throws unless an exported function returned 0. */
function require0(name, status, reasons, code) {
  if (status === 0) return;
  throw new TesseraError(`${name} returned ${status}: ${reasons}`, { code, status, function: name });
}

module.exports = { TesseraError, require0 };
