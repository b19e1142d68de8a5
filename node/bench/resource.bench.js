'use strict';
// getResourceSyncNative of a 16 KiB pack hit against fs.readFileSync of the same file, in the same
// run: the ratio is what the module adds over the cheapest way a script gets those bytes.
//   FERRITCORE_ADDON=build/node/ferritcore.node node node/bench/resource.bench.js [ROUNDS]
const fs = require('fs');
const os = require('os');
const path = require('path');

const { ferrit, makeAssets, makeHost, waitFor } = require('../test/helpers');

const PREFIX = 'https://bench.example.com/app/';
const FILES = 64;
const ROUNDS = Number(process.argv[2] || 5);
const PER_ROUND = 20000;

function median(values) {
  const sorted = [...values].sort((a, b) => a - b);
  return sorted[Math.floor(sorted.length / 2)];
}

async function main() {
  const root = fs.mkdtempSync(path.join(os.tmpdir(), 'ferrit-node-bench-'));
  const files = {};
  for (let i = 0; i < FILES; ++i) files[`f${i}.js`] = Buffer.alloc(16 * 1024, String.fromCharCode(97 + (i % 26)));
  const assets = makeAssets(path.join(root, 'rawfile'), { app: { seq: 1, prefix: PREFIX, files } });
  ferrit.setProxyNative(makeHost({}), path.join(root, 'cache'), assets);
  await waitFor(() => ferrit.getResourceSyncNative({ url: PREFIX + 'f0.js' }).error === undefined);
  const requests = Object.keys(files).map((name) => ({ url: PREFIX + name, header: { Accept: '*/*' } }));
  const paths = Object.keys(files).map((name) => path.join(assets, 'Ferrit_Asset_app', '1', 'res', name));

  const ours = [];
  const floor = [];
  for (let round = 0; round < ROUNDS; ++round) {
    let start = process.hrtime.bigint();
    for (let i = 0; i < PER_ROUND; ++i) {
      const response = ferrit.getResourceSyncNative(requests[i % FILES]);
      if (response.data.byteLength !== 16384) throw new Error('short read');
    }
    ours.push(Number(process.hrtime.bigint() - start) / PER_ROUND);
    await new Promise((resolve) => setImmediate(resolve));  // finalisers of dropped buffers
    start = process.hrtime.bigint();
    for (let i = 0; i < PER_ROUND; ++i) {
      const data = fs.readFileSync(paths[i % FILES]);
      if (data.length !== 16384) throw new Error('short read');
    }
    floor.push(Number(process.hrtime.bigint() - start) / PER_ROUND);
  }
  const a = median(ours);
  const b = median(floor);
  console.log(`getResourceSyncNative 16 KiB hit: ${(a / 1000).toFixed(2)} us (median of ${ROUNDS} rounds)`);
  console.log(`fs.readFileSync 16 KiB:           ${(b / 1000).toFixed(2)} us`);
  console.log(`ratio: ${(a / b).toFixed(2)}`);
  fs.rmSync(root, { recursive: true, force: true });
}

main();
