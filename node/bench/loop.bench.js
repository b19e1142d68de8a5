'use strict';
// Synchronous 16 KiB pack hits in one loop that never yields, as a host that answers a burst of
// requests without returning to its event loop: resident memory before and after, the engine's
// count of array buffer memory, and the time per hit against fs.readFileSync of the same file in
// the same run (loops of the same shape, also never yielding).
//   FERRITCORE_ADDON=build/node/ferritcore.node node node/bench/loop.bench.js [HITS] [RSS_LIMIT_MB]
// RSS_LIMIT_MB (default 4096) stops the loop early, and says so, when resident memory passes it.
const fs = require('fs');
const os = require('os');
const path = require('path');

const { ferrit, makeAssets, makeHost, waitFor } = require('../test/helpers');

const PREFIX = 'https://loop.example.com/app/';
const HITS = Number(process.argv[2] || 100000);
const LIMIT = Number(process.argv[3] || 4096) * 1024 * 1024;
const CHECK_EVERY = 10000;

const mb = (bytes) => (bytes / (1024 * 1024)).toFixed(1);

async function main() {
  const root = fs.mkdtempSync(path.join(os.tmpdir(), 'ferrit-node-loop-'));
  const body = Buffer.alloc(16 * 1024, 'l');
  const assets = makeAssets(path.join(root, 'rawfile'), { app: { seq: 1, prefix: PREFIX, files: { 'a.js': body } } });
  ferrit.setProxyNative(makeHost({}), path.join(root, 'cache'), assets);
  await waitFor(() => ferrit.getResourceSyncNative({ url: PREFIX + 'a.js' }).error === undefined);
  const request = { url: PREFIX + 'a.js', header: { Accept: '*/*' } };
  const file = path.join(assets, 'Ferrit_Asset_app', '1', 'res', 'a.js');
  // Warm both paths (code, allocator pools), then measure from a settled state.
  for (let i = 0; i < 2000; ++i) ferrit.getResourceSyncNative(request);
  for (let i = 0; i < 2000; ++i) fs.readFileSync(file);
  await new Promise((resolve) => setImmediate(resolve));

  const before = process.memoryUsage();
  let done = 0;
  let peak = before.rss;
  let start = process.hrtime.bigint();
  for (; done < HITS; ++done) {
    const response = ferrit.getResourceSyncNative(request);
    if (response.data.byteLength !== body.length) throw new Error('short read');
    if (done % CHECK_EVERY === 0) {
      const rss = process.memoryUsage.rss();
      if (rss > peak) peak = rss;
      if (rss > LIMIT) break;
    }
  }
  const ours = Number(process.hrtime.bigint() - start) / done;
  const after = process.memoryUsage();
  if (after.rss > peak) peak = after.rss;

  start = process.hrtime.bigint();
  for (let i = 0; i < done; ++i) {
    if (fs.readFileSync(file).length !== body.length) throw new Error('short read');
  }
  const floor = Number(process.hrtime.bigint() - start) / done;

  console.log(`hits: ${done}${done < HITS ? ` (stopped: resident memory passed ${mb(LIMIT)} MB)` : ''}`);
  console.log(`rss before ${mb(before.rss)} MB, after ${mb(after.rss)} MB, peak ${mb(peak)} MB`);
  console.log(`arrayBuffers before ${mb(before.arrayBuffers)} MB, after ${mb(after.arrayBuffers)} MB`);
  console.log(`getResourceSyncNative ${(ours / 1000).toFixed(2)} us/hit, fs.readFileSync ${(floor / 1000).toFixed(2)} us, ratio ${(ours / floor).toFixed(2)}`);
  fs.rmSync(root, { recursive: true, force: true });
}

main();
