'use strict';
// Loads the native module "ferritcore", makes setProxyNative insist on the publisher's public key,
// adds `inspect`, which sends a command to the developer inspector and resolves with its reply,
// and, above them, `open()` (lib/cache.js), the host API that most hosts use instead. The addon is looked for, in order: the path in FERRITCORE_ADDON, next to this file (an
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
const resourceSyncNative = native[Symbol.for('ferritcore.resourceSync')];
const requestFieldsNative = native[Symbol.for('ferritcore.requestFields')];

const { FerritError, keyRefusal } = require('./lib/errors');
const openCache = require('./lib/cache');
const { makeGetResourceSync } = require('./lib/resource');

// The native with the key check in front: a host object with neither a readable "publicKey" nor
// "insecureNoSignatureCheck: true" is refused with an Error that says why, before anything opens.
// Calls that break the native's own argument rules go to it unchanged (and get its false).
function setProxyNative(...args) {
  const [host, rootPath] = args;
  if (args.length === 3 && typeof rootPath === 'string' && typeof host === 'object' && host !== null) {
    const refusal = keyRefusal(hostKeyNative(host));
    if (refusal) throw refusal;
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

// The eighteen natives, in their order (setProxyNative with its key check), then `inspect`, then
// the host API above them: open() and its error type.
const exported = {};
for (const name of Object.getOwnPropertyNames(native)) exported[name] = native[name];
exported.setProxyNative = setProxyNative;
// The same native, with the request read and the response built on this side of the boundary.
if (typeof resourceSyncNative === 'function' && typeof requestFieldsNative === 'function') {
  exported.getResourceSyncNative = makeGetResourceSync(resourceSyncNative, requestFieldsNative);
}
exported.inspect = inspect;
exported.open = openCache.bind(exported, native);
exported.FerritError = FerritError;
module.exports = exported;
