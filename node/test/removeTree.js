'use strict';
// The library's worker may still be writing below a root when a test ends (a commit, a store), so
// a removal that races it is tried once more when the process exits.
const fs = require('fs');

function removeTree(dir) {
  try {
    fs.rmSync(dir, { recursive: true, force: true });
  } catch {
    process.once('exit', () => {
      try {
        fs.rmSync(dir, { recursive: true, force: true });
      } catch {
        // left for the system's temporary folder cleaning
      }
    });
  }
}

module.exports = { removeTree };
