'use strict';
// getResourceSyncNative of a pack hit against fs.readFileSync of the same file, in the same run:
// the ratio is what the module adds over the cheapest way a script gets those bytes. Each size
// (in KiB, 16 unless told) has its own pack of files and its own figures.
//   FERRITCORE_ADDON=build/node/ferritcore.node node node/bench/resource.bench.js [ROUNDS] [KIB,...]
const fs = require('fs');
const os = require('os');
const path = require('path');

const { ferrit, makeAssets, makeHost, waitFor } = require('../test/helpers');

const PREFIX = 'https://bench.example.com/app/';
const FILES = 64;
const ROUNDS = Number(process.argv[2] || 5);
const SIZES = (process.argv[3] || '16').split(',').map(Number);
// About the same time per round whatever the size: a 128 KiB read costs several 1 KiB ones.
const BYTES_PER_ROUND = 20000 * 16 * 1024;
const MAX_PER_ROUND = 50000;
const SLICES = 10;

function median(values) {
  const sorted = [...values].sort((a, b) => a - b);
  return sorted[Math.floor(sorted.length / 2)];
}

function packName(kib) {
  return `app${kib}`;
}

function measure(kib, assets) {
  const size = kib * 1024;
  const prefix = `${PREFIX}${kib}/`;
  const names = Array.from({ length: FILES }, (_, i) => `f${i}.js`);
  const requests = names.map((name) => ({ url: prefix + name, header: { Accept: '*/*' } }));
  const paths = names.map((name) => path.join(assets, `Ferrit_Asset_${packName(kib)}`, '1', 'res', name));
  const perSlice = Math.ceil(Math.min(MAX_PER_ROUND, Math.round(BYTES_PER_ROUND / size)) / SLICES);
  const ours = [];
  const floor = [];
  return (async () => {
    for (let round = 0; round < ROUNDS; ++round) {
      // The two sides take turns in slices, so that a burst of other work on the machine falls on
      // both alike instead of on whichever side ran at the time.
      let ourTime = 0n;
      let floorTime = 0n;
      for (let slice = 0; slice < SLICES; ++slice) {
        let start = process.hrtime.bigint();
        for (let i = 0; i < perSlice; ++i) {
          const response = ferrit.getResourceSyncNative(requests[i % FILES]);
          if (response.data.byteLength !== size) throw new Error('short read');
        }
        ourTime += process.hrtime.bigint() - start;
        await new Promise((resolve) => setImmediate(resolve));  // finalisers of dropped buffers
        start = process.hrtime.bigint();
        for (let i = 0; i < perSlice; ++i) {
          const data = fs.readFileSync(paths[i % FILES]);
          if (data.length !== size) throw new Error('short read');
        }
        floorTime += process.hrtime.bigint() - start;
      }
      ours.push(Number(ourTime) / (perSlice * SLICES));
      floor.push(Number(floorTime) / (perSlice * SLICES));
    }
    const a = median(ours);
    const b = median(floor);
    const label = `${kib} KiB`;
    console.log(`getResourceSyncNative ${label} hit: ${(a / 1000).toFixed(2)} us (median of ${ROUNDS} rounds)`);
    console.log(`fs.readFileSync ${label}:`.padEnd(`getResourceSyncNative ${label} hit: `.length) + `${(b / 1000).toFixed(2)} us`);
    console.log(`ratio: ${(a / b).toFixed(2)}`);
  })();
}

async function main() {
  const root = fs.mkdtempSync(path.join(os.tmpdir(), 'ferrit-node-bench-'));
  const packs = {};
  for (const kib of SIZES) {
    const files = {};
    for (let i = 0; i < FILES; ++i) files[`f${i}.js`] = Buffer.alloc(kib * 1024, String.fromCharCode(97 + (i % 26)));
    packs[packName(kib)] = { seq: 1, prefix: `${PREFIX}${kib}/`, files };
  }
  const assets = makeAssets(path.join(root, 'rawfile'), packs);
  ferrit.setProxyNative(makeHost({}), path.join(root, 'cache'), assets);
  for (const kib of SIZES) {
    await waitFor(() => ferrit.getResourceSyncNative({ url: `${PREFIX}${kib}/f0.js` }).error === undefined);
  }
  for (const kib of SIZES) await measure(kib, assets);
  fs.rmSync(root, { recursive: true, force: true });
}

main();
