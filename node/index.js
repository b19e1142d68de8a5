'use strict';
// Loads the native module "ferritcore", makes setProxyNative insist on the publisher's public key,
// and adds `inspect`, which sends a command to the developer inspector and resolves with its
// reply. The addon is looked for, in order: the path in FERRITCORE_ADDON, next to this file (an
// installed package), and in the project's build folder.
const fs = require('fs');
const path = require('path');

function locateAddon() {
  const candidates = [
    process.env.FERRITCORE_ADDON,
    path.join(__dirname, 'ferritcore.node'),
    path.join(__dirname, '..', 'build', 'node', 'ferritcore.node'),
  ].filter(Boolean);
  for (const candidate of candidates) {
    if (fs.existsSync(candidate)) return path.resolve(candidate);
  }
  throw new Error(
    'ferritcore.node not found: build the target ferritcore_node with CMake, or set FERRITCORE_ADDON');
}

const native = require(locateAddon());
const inspectNative = native[Symbol.for('ferritcore.inspect')];
const hostKeyNative = native[Symbol.for('ferritcore.hostKey')];

// What a host that gives no key is told: how to give one.
const kHowToPassKey =
  'ferritcore: setProxyNative needs the publisher\'s Ed25519 public key, with which every signed ' +
  'resource list and configuration document is checked before it is trusted. Set it as the ' +
  '"publicKey" property of the host object: the public key file that `ferrit keygen` wrote ' +
  '(its PEM text, or the Buffer of fs.readFileSync("publisher.pub.pem")), the 32 raw bytes as a ' +
  'Buffer or base64 text, or a public crypto.KeyObject. For development only, ' +
  '"insecureNoSignatureCheck: true" opens without checking any signature.';

// The error codes of the two refusals, for hosts that test for them.
const kNoPublicKey = 'FERRIT_NO_PUBLIC_KEY';
const kBadPublicKey = 'FERRIT_BAD_PUBLIC_KEY';

function refusal(message, code) {
  const error = new Error(message);
  error.code = code;
  return error;
}

// The native with the key check in front: a host object with neither a readable "publicKey" nor
// "insecureNoSignatureCheck: true" is refused with an Error that says why, before anything opens.
// Calls that break the native's own argument rules go to it unchanged (and get its false).
function setProxyNative(...args) {
  const [host, rootPath] = args;
  if (args.length === 3 && typeof rootPath === 'string' && typeof host === 'object' && host !== null) {
    const { state, reason } = hostKeyNative(host);
    if (state === 'missing') throw refusal(kHowToPassKey, kNoPublicKey);
    if (state === 'invalid') {
      throw refusal(`ferritcore: the host object's "publicKey" is not an Ed25519 public key: ${reason}. ` +
        'Give the public key file that `ferrit keygen` wrote (PEM text or its Buffer), the 32 raw bytes ' +
        'as a Buffer or base64 text, or a public crypto.KeyObject.', kBadPublicKey);
    }
  }
  return native.setProxyNative(...args);
}

// Sends `command` (such as "FerritDev.info") with `params` (an object) and resolves with the
// reply's data; a failed command rejects with an Error carrying `code` and `data`.
function inspect(command, params = {}) {
  return new Promise((resolve, reject) => {
    if (typeof command !== 'string') {
      reject(new TypeError('command must be a string'));
      return;
    }
    inspectNative(command, JSON.stringify(params ?? {}), (success, text) => {
      let data;
      try {
        data = JSON.parse(text);
      } catch (error) {
        reject(error);
        return;
      }
      if (success) {
        resolve(data ?? {});
      } else {
        const error = new Error((data && data.message) || `inspector command ${command} failed`);
        error.code = data && data.code;
        error.data = data;
        reject(error);
      }
    });
  });
}

// The eighteen natives, in their order (setProxyNative with its key check), then `inspect`.
const exported = {};
for (const name of Object.getOwnPropertyNames(native)) exported[name] = native[name];
exported.setProxyNative = setProxyNative;
exported.inspect = inspect;
module.exports = exported;
