'use strict';
// How soon a page is ready from packs through servePage, against the same page from nginx on
// loopback with nothing in between, and from nginx behind 100 ms of added latency: the story's
// page of 60 small resources, and a page whose main script is a 7 MB bundle. Same machine, same
// Chromium, page cache off, medians of several loads; nginx is stopped while the packs serve, so
// nothing of theirs can come from it. Prints what it measured; asserts looser floors than the
// goal, as the machine is shared.
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { test } = require('node:test');

const s = require('./support');
const ferrit = require('../../node');
const { servePage } = require('../../node/browser');
const { removeTree } = require('../../node/test/removeTree');

const kAddedLatencyMs = 100;
const kBundleBytes = 7 * 1024 * 1024;
// Loads of each kind whose median counts, after one load of each kind that does not.
const kLoads = 5;
// The goal: from packs within this factor of nginx direct (the median of the rounds' ratios).
// The run asserts the looser floor, and that packs are ahead of nginx behind the added latency:
// the story's page at least 1.3 times as soon, as the story asserts (alone on 2 cores it measures
// about 6x; 1.9x while other builds load both cores); the bundle's page, whose network time is
// two round trips (the document, then its resources side by side) next to half a second of
// compiling the bundle, ahead at all, where base64 through the protocol fell behind it.
const kGoalFactor = 1.1;
const kFloorFactor = 1.5;
const kAheadFloor = { story: { ratio: 1.3 }, bundle: { ms: 0 } };
// Where the measured times go, for the demo's summary.
const timingsOut = process.env.FERRIT_PAGEREADY_TIMINGS;

function median(values) {
  const sorted = values.slice().sort((a, b) => a - b);
  return sorted[Math.floor(sorted.length / 2)];
}

test('pages are ready from packs about as soon as from nginx on loopback', { timeout: 120000 }, async (t) => {
  const dir = s.scratch('pageready');
  const siteRoot = path.join(dir, 'site');
  const tree = path.join(dir, 'tree');
  const manifest = path.join(dir, 'manifest.json');
  const root = path.join(dir, 'root');
  fs.mkdirSync(root);
  s.writeSite(siteRoot, { headline: 'Ready', banner: [20, 40, 60] });
  const functions = s.writeBundleSite(siteRoot, 'bundle', kBundleBytes);
  s.writeManifest(manifest, [{ name: 'bundle', folder: 'bundle' }]);
  s.publish(siteRoot, manifest, tree);
  const port = await s.freePort();
  const base = `http://127.0.0.1:${port}/`;
  const nginx = new s.Nginx({ dir: path.join(dir, 'nginx'), tree, siteRoot, port, sitePaths: ['/app/', '/bundle/'] });
  const cleanups = [];
  t.after(async () => {
    for (const cleanup of cleanups.reverse()) await cleanup().catch(() => {});
    await nginx.stop();
    removeTree(dir);
  });
  await nginx.start();

  const cache = await ferrit.open({
    root, appKey: 'story', appVersion: '1.0', locale: 'en', publicKey: fs.readFileSync(s.publicKey), server: base,
  });
  cleanups.push(() => cache.close());
  const { packs } = await cache.update();
  assert.deepEqual(packs.map((r) => [r.name, r.error]).sort(), [['bundle', undefined], ['story', undefined]]);

  const browser = await s.launchBrowser(`127.0.0.1:${port}`);
  cleanups.push(() => browser.close());
  const proxy = await s.startDelayProxy(port, kAddedLatencyMs);
  cleanups.push(() => proxy.close());
  const delayed = await s.launchBrowser(`127.0.0.1:${proxy.port}`);
  cleanups.push(() => delayed.close());

  const pages = {
    story: {
      url: `${s.kAppOrigin}/app/index.html`,
      resources: s.kResourcesBesides + 1,
      ready: async (page) => assert.equal(await page.$eval('#count', (e) => e.textContent), '20'),
    },
    bundle: {
      url: `${s.kAppOrigin}/bundle/index.html`,
      resources: 6,
      ready: async (page) => assert.equal(await page.$eval('#status', (e) => e.textContent), `ready ${functions}`),
    },
  };

  // One load; with `packs` (servePage's options), through servePage and checked to have come
  // from packs alone.
  const load = async (on, { url, resources, ready }, packs) => {
    const page = await on.newPage();
    try {
      await page.setCacheEnabled(false);
      const server = packs ? await servePage(page, cache, packs) : null;
      const started = performance.now();
      await page.goto(url, { waitUntil: 'load' });
      const ms = performance.now() - started;
      await ready(page);
      if (server) {
        await server.detach();
        assert.equal(server.served.length, resources);
        assert.deepEqual(server.served.filter((r) => !r.fromPack), [], 'every resource from a pack');
      }
      return { ms, stats: server?.stats };
    } finally {
      await page.close();
    }
  };

  const results = {};
  for (const [name, page] of Object.entries(pages)) {
    const times = { packs: [], direct: [], delayed: [], inlined: [] };
    const stats = [];
    for (let i = 0; i <= kLoads; ++i) {
      // Each kind once per round, so that all see the same state of the shared machine, in the
      // opposite order every other round, so that none gains from its place: nginx is up for
      // the loads from it, down for those from packs. Also every body in the protocol message,
      // as a host that fulfils each request with its body in base64 does, for comparison only.
      const round = {};
      const fromNginx = async () => {
        round.direct = await load(browser, page, false);
        round.delayed = await load(delayed, page, false);
      };
      const fromPacks = async () => {
        await nginx.stop();
        round.packs = await load(browser, page, {});
        round.inlined = await load(browser, page, { inlineLimit: Infinity });
        await nginx.start();
      };
      if (i % 2 === 0) {
        await fromNginx();
        await fromPacks();
      } else {
        await fromPacks();
        await fromNginx();
      }
      if (i === 0) continue;  // the first of each warms the browser up
      for (const kind of Object.keys(times)) times[kind].push(round[kind].ms);
      stats.push(round.packs.stats);
    }
    const m = Object.fromEntries(Object.entries(times).map(([k, v]) => [k, median(v)]));
    const last = stats[stats.length - 1];
    results[name] = {
      ...m,
      // Each round's own ratio, then their median: the rounds' loads ran side by side.
      packsToDirect: median(times.packs.map((x, k) => x / times.direct[k])),
      delayedToPacks: median(times.delayed.map((x, k) => x / times.packs[k])),
      aheadMs: median(times.delayed.map((x, k) => x - times.packs[k])),
      loads: times,
      servedInline: last.inline,
      servedLoopback: last.loopback,
      cacheMsPerLoad: median(stats.map((x) => x.cacheMs)),
      protocolMsPerLoad: median(stats.map((x) => x.protocolMs)),
    };
    const r = results[name];
    const list = (v) => v.map((x) => x.toFixed(0)).join(' ');
    console.log(`${name} page (${page.resources} resources): packs ${m.packs.toFixed(0)} ms, nginx direct ` +
      `${m.direct.toFixed(0)} ms, nginx +${kAddedLatencyMs} ms ${m.delayed.toFixed(0)} ms; packs/direct ` +
      `${r.packsToDirect.toFixed(2)} (goal <= ${kGoalFactor}), +${kAddedLatencyMs} ms/packs ${r.delayedToPacks.toFixed(1)}x ` +
      `(${r.aheadMs.toFixed(0)} ms later); ` +
      `every body inline ${m.inlined.toFixed(0)} ms (${(m.inlined / m.direct).toFixed(2)} of direct)`);
    console.log(`  ${r.servedInline} inline, ${r.servedLoopback} through loopback, the cache's answers ` +
      `${r.cacheMsPerLoad.toFixed(0)} ms and the browser's taking them ${r.protocolMsPerLoad.toFixed(0)} ms, summed per load; loads (ms): packs ${list(times.packs)}; direct ` +
      `${list(times.direct)}; +${kAddedLatencyMs} ms ${list(times.delayed)}; inline ${list(times.inlined)}`);
  }
  if (timingsOut) fs.writeFileSync(timingsOut, JSON.stringify(results));
  for (const [name, r] of Object.entries(results)) {
    assert.ok(r.packsToDirect <= kFloorFactor, `${name}: packs ${r.packs} ms against nginx direct ${r.direct} ms`);
    const ahead = kAheadFloor[name];
    assert.ok(ahead.ratio ? r.delayedToPacks >= ahead.ratio : r.aheadMs > ahead.ms,
      `${name}: packs ${r.packs} ms against nginx +${kAddedLatencyMs} ms ${r.delayed} ms`);
  }
});
