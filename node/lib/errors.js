'use strict';
// The package's one error type. A failure of the library carries its number code and its words;
// a refusal of the package itself carries a "FERRIT_..." text code, so that a host can test for it
// without parsing the message.
class FerritError extends Error {
  // code: a number (the library's) or a "FERRIT_..." text; reason: the words, the message unless
  // given; cause: the failure under it, when there is one.
  constructor(message, { code, reason, cause } = {}) {
    super(message, cause === undefined ? undefined : { cause });
    this.name = 'FerritError';
    this.code = code;
    this.reason = reason ?? message;
  }
}

// The text codes of the package's refusals.
const Codes = Object.freeze({
  badOption: 'FERRIT_BAD_OPTION',
  noPublicKey: 'FERRIT_NO_PUBLIC_KEY',
  badPublicKey: 'FERRIT_BAD_PUBLIC_KEY',
  alreadyOpen: 'FERRIT_ALREADY_OPEN',
  otherRoot: 'FERRIT_OTHER_ROOT',
  closed: 'FERRIT_CLOSED',
  notSupported: 'FERRIT_NOT_SUPPORTED',
  noConfiguration: 'FERRIT_NO_CONFIGURATION',
  inspect: 'FERRIT_INSPECT_FAILED',
});

// What a host that gives no key is told: how to give one.
const kHowToPassKey =
  'ferritcore: setProxyNative needs the publisher\'s Ed25519 public key, with which every signed ' +
  'resource list and configuration document is checked before it is trusted. Set it as the ' +
  '"publicKey" property of the host object: the public key file that `ferrit keygen` wrote ' +
  '(its PEM text, or the Buffer of fs.readFileSync("publisher.pub.pem")), the 32 raw bytes as a ' +
  'Buffer or base64 text, or a public crypto.KeyObject. For development only, ' +
  '"insecureNoSignatureCheck: true" opens without checking any signature.';

// The refusal of a key that is there but is no Ed25519 public key, with the library's reason.
function badKeyMessage(reason) {
  return `ferritcore: the host object's "publicKey" is not an Ed25519 public key: ${reason}. ` +
    'Give the public key file that `ferrit keygen` wrote (PEM text or its Buffer), the 32 raw bytes ' +
    'as a Buffer or base64 text, or a public crypto.KeyObject.';
}

// The refusal of a key check answered {state, reason} by the library, or undefined when the key
// is usable.
function keyRefusal({ state, reason }) {
  if (state === 'missing') return new FerritError(kHowToPassKey, { code: Codes.noPublicKey });
  if (state === 'invalid') return new FerritError(badKeyMessage(reason), { code: Codes.badPublicKey, reason });
  return undefined;
}

function badOption(name, expected, value) {
  const shown = value === undefined ? 'nothing' : describeValue(value);
  return new FerritError(`ferritcore.open: option "${name}" ${expected}; it was ${shown}`,
    { code: Codes.badOption, reason: `"${name}" ${expected}` });
}

function describeValue(value) {
  if (typeof value === 'string') return JSON.stringify(value.length > 60 ? `${value.slice(0, 60)}...` : value);
  if (value === null) return 'null';
  if (Array.isArray(value)) return 'an array';
  if (typeof value === 'function') return 'a function';
  if (typeof value === 'object') return 'an object';
  return `${typeof value} ${String(value)}`;
}

// The library's error value (made by the host object's createError, or a plain {code, message}).
function fromLibrary(error) {
  if (error instanceof FerritError) return error;
  const code = error?.code;
  const message = error?.message ?? String(error);
  return new FerritError(message, { code, reason: message });
}

module.exports = { FerritError, Codes, keyRefusal, badOption, fromLibrary, kHowToPassKey };
