'use strict';
// 100,000 synchronous 16 KiB pack hits in one loop that never yields to the event loop, as a host
// answering a burst of requests does: resident memory stays within a bound, because each hit is
// read into memory that the engine allocates and frees by itself, and nothing of a response waits
// for a finaliser (which the engine runs only on a later turn of its loop).
const test = require('node:test');
const assert = require('node:assert/strict');
const path = require('path');

const { ferrit, tempRoot, makeAssets, makeHost, waitFor } = require('./helpers');
const { removeTree } = require('./removeTree');

const PREFIX = 'https://mem.example.com/';
const CALLS = Number(process.env.FERRIT_MEMORY_CALLS || 100000);
// A response held per hit until the loop yields costs about 16 KiB each: 1.6 GB over the loop.
// The engine's heap and the allocator's arenas may still grow by some tens of megabytes while
// other processes share the machine.
const BOUND = 96 * 1024 * 1024;

const SYNC = { url: PREFIX + 'data.js' };
const ASYNC = { url: PREFIX + 'async/data.js' };
const body = Buffer.alloc(16 * 1024, 'm');
const asyncBody = Buffer.alloc(16 * 1024, 'a');

// The proxy is set once per process: one raw-file folder for every test of the file.
const root = tempRoot();
test.after(() => removeTree(root));
test.before(async () => {
  const assets = makeAssets(path.join(root, 'rawfile'), {
    mem: { seq: 1, prefix: PREFIX, files: { 'data.js': body } },
    amem: { seq: 1, prefix: PREFIX + 'async/', files: { 'data.js': asyncBody } },
  });
  assert.equal(ferrit.setProxyNative(makeHost({}), path.join(root, 'cache'), assets), true);
  await waitFor(() => ferrit.getResourceSyncNative(SYNC).error === undefined);
});

test('MemoryTest.HundredThousandSyncHitsInOneLoopStayWithinBound', async () => {
  const request = SYNC;
  // Warm: code, allocator pools, the pack index.
  for (let i = 0; i < 1000; ++i) ferrit.getResourceSyncNative(request);
  await new Promise((resolve) => setImmediate(resolve));

  const before = process.memoryUsage.rss();
  let peak = before;
  let last;
  for (let i = 0; i < CALLS; ++i) {
    last = ferrit.getResourceSyncNative(request);
    if (last.data?.byteLength !== body.length) throw new Error(`short read: ${last.error?.message}`);
    if (i % 5000 === 0) peak = Math.max(peak, process.memoryUsage.rss());
  }
  peak = Math.max(peak, process.memoryUsage.rss());
  console.log(`rss before ${before}, peak over ${CALLS} hits in one loop ${peak}`);
  // The bytes are the file's, in an ArrayBuffer of the engine's.
  assert.ok(last.data instanceof ArrayBuffer);
  assert.deepEqual(Buffer.from(last.data), body);
  // Under ASan freed memory waits in the sanitizer's quarantine, so resident memory says nothing
  // there; the run still shows that every hit's memory is freed exactly once.
  if (process.env.FERRIT_SANITIZED) return;
  assert.ok(peak - before < BOUND, `resident memory grew by ${peak - before} bytes over ${CALLS} hits`);
});

test('MemoryTest.ManyOutstandingAsyncHitsGiveTheirMemoryBack', async () => {
  const request = ASYNC;
  const body = asyncBody;
  const round = (count) => Promise.all(Array.from({ length: count }, () => new Promise((resolve, reject) => {
    ferrit.getResourceNative(request, (response) => {
      if (response.error !== undefined || response.data.byteLength !== body.length) reject(new Error('bad read'));
      else resolve();
    });
  })));
  // Each round holds its requests (a response and its buffer, some 32 KiB each) until they are
  // answered, and nothing once they are: after two rounds to warm, three more end where those did,
  // where a response kept per request would add 240 MB.
  const count = Math.min(CALLS / 20, 5000);
  for (let i = 0; i < 2; ++i) await round(count);
  const before = process.memoryUsage.rss();
  for (let i = 0; i < 3; ++i) await round(count);
  const after = process.memoryUsage.rss();
  console.log(`rss before ${before}, after 3 rounds of ${count} outstanding async hits ${after}`);
  if (process.env.FERRIT_SANITIZED) return;
  assert.ok(after - before < BOUND, `resident memory grew by ${after - before} bytes over three rounds`);
});
