'use strict';
// A process that ends while the library's worker still posts to the script thread: the
// environment's teardown frees the engine's side of the bridge under the worker, which must then
// be refused, never crash the process on its way out.
const test = require('node:test');
const assert = require('node:assert/strict');
const path = require('path');
const { spawnSync } = require('child_process');

const probePath =
  process.env.FERRITCORE_PROBE || path.join(__dirname, '..', '..', 'build', 'node', 'ferritcore_probe.node');

test('ExitTest.ProcessEndingWhileAWorkerPostsExitsCleanly', () => {
  const script = `require(${JSON.stringify(probePath)}).keepPosting({});`;
  // Each exit races the poster anew; one clean exit in a row of them would prove little.
  for (let run = 0; run < 20; ++run) {
    const child = spawnSync(process.execPath, ['-e', script], { encoding: 'utf8', timeout: 60000 });
    assert.equal(child.signal, null, `run ${run} ended by ${child.signal}: ${child.stderr}`);
    assert.equal(child.status, 0, `run ${run}: ${child.stderr}`);
  }
});
