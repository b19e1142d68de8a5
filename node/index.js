'use strict';
// Loads the native module "ferritcore" and adds `inspect`, which sends a command to the developer
// inspector and resolves with its reply. The addon is looked for, in order: the path in
// FERRITCORE_ADDON, next to this file (an installed package), and in the project's build folder.
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

// The eighteen natives, in their order, then `inspect`.
const exported = {};
for (const name of Object.getOwnPropertyNames(native)) exported[name] = native[name];
exported.inspect = inspect;
module.exports = exported;
