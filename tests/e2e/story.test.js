'use strict';
// The whole story on real parts: `ferrit publish` writes a static tree, nginx serves it on
// loopback, the package's open() starts the library and installs the packs over Node's fetch, and
// headless Chromium loads the app offline with every request answered from the cache through the
// package's servePage. Then a second version with two changed files arrives as an increment,
// and the network's faults leave the installed version serving; at the end the site goes back to
// version one, and its increment brings the device back to it; last, one line of the app's 11 MB
// script (a real release of a charting library) changes and arrives as a patched increment.
// Also: the page's load time from packs against nginx behind a proxy that adds 100 ms to every
// request, and the inspector page.
// One process holds the library, so the steps run in order in one test.
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { test } = require('node:test');

const s = require('./support');
const ferrit = require('../../node');
// Only for its inspector page, fed with what the cache tells.
const { FerritHost } = require('../../examples/node-host/FerritHost');
const { removeTree } = require('../../node/test/removeTree');

// Added to every request of the page loaded from the network.
const kAddedLatencyMs = 100;
// A server this slow would hold the page for seconds; from packs it does not wait for it.
const kSlowServerMs = 5000;
// The least ratio of load times that the run accepts: packs clearly ahead even on a machine busy
// with other work; the goal is 5x, and the run prints what it measured (see the README).
const kRatioFloor = 1.3;
// Loads of each kind whose median is reported.
const kLoads = 3;
// The banner's colours in the two versions, and where the screenshot shows it.
const kBannerOne = [200, 30, 30];
const kBannerTwo = [30, 140, 60];
const kBannerPixel = [100, 50];
// Where a copy of the inspector's screenshot goes, when asked (the README's picture).
const screenshotOut = process.env.FERRIT_INSPECTOR_SCREENSHOT;
// Where the load times go, for the demo's summary.
const timingsOut = process.env.FERRIT_STORY_TIMINGS;

const storyStarted = performance.now();
// One line per step on the test's output, with the time since the start.
function step(what) {
  console.log(`# ${((performance.now() - storyStarted) / 1000).toFixed(1)} s: ${what}`);
}

function median(values) {
  const sorted = values.slice().sort((a, b) => a - b);
  return sorted[Math.floor(sorted.length / 2)];
}

function closeTo(actual, expected) {
  return actual.every((v, i) => Math.abs(v - expected[i]) <= 3);
}

test('the app is published, installed, loaded offline and updated by increment', { timeout: 230000 }, async (t) => {
  const dir = s.scratch('story');
  const siteRoot = path.join(dir, 'site');
  const tree = path.join(dir, 'tree');
  const manifest = path.join(dir, 'manifest.json');
  const root = path.join(dir, 'root');
  fs.mkdirSync(root);
  const port = await s.freePort();
  const base = `http://127.0.0.1:${port}/`;
  const pageUrl = `${s.kAppOrigin}/app/index.html`;
  const nginx = new s.Nginx({ dir: path.join(dir, 'nginx'), tree, siteRoot, port });
  const cleanups = [];
  const onCleanup = (label, close) => {
    close.label = label;
    cleanups.push(close);
  };
  t.after(async () => {
    for (const cleanup of cleanups.reverse()) {
      await cleanup().catch(() => {});
      step(`closed ${cleanup.label ?? ''}`);
    }
    await nginx.stop();
    step('nginx stopped');
    removeTree(dir);
  });

  // Version one, published and served.
  s.writeSite(siteRoot, { headline: 'Version one', banner: kBannerOne });
  s.writeManifest(manifest);
  assert.match(s.publish(siteRoot, manifest, tree), /story 1 \(full\)/);
  await nginx.start();
  step('version one published');

  // Every request of the library goes through this fetch: the story sees what was asked for, and
  // can stop the server in the middle of a download.
  const requests = [];
  let beforeFetch = null;
  const storyFetch = async (url, init) => {
    requests.push(String(url));
    if (beforeFetch) await beforeFetch(String(url));
    return fetch(url, init);
  };
  const cache = await ferrit.open({
    root, appKey: 'story', appVersion: '1.0', locale: 'en', publicKey: fs.readFileSync(s.publicKey),
    server: base, fetch: storyFetch,
  });
  onCleanup('cache', () => cache.close());
  const inspector = new FerritHost({ publicKeyPem: s.publicKey });
  inspector.cache = cache;
  cache.on('packUpdated', (name) => inspector.note('pack', { name }));
  // The library's log comes to the story instead of stderr.
  const logged = [];
  cache.on('log', (entry) => logged.push(entry));
  const update = async () => {
    const result = await cache.update();
    for (const pack of result.packs) if (pack.error) inspector.note('pack', { name: pack.name, error: pack.error.message });
    return result.packs;
  };
  const packs = async () => (await cache.inspect('FerritDev.fconfig')).packs ?? {};
  const installed = await update();
  assert.deepEqual(installed.map((r) => [r.name, r.error]), [['story', undefined]]);
  assert.equal(Number((await packs()).story.installedSeq), 1);
  assert.ok(requests.some((url) => url.endsWith('/packconfig/story/1')));
  assert.ok(requests.some((url) => url.endsWith('/packs/story/1.zip')));
  step('installed');

  const browser = await s.launchBrowser(`127.0.0.1:${port}`);
  onCleanup('browser', () => browser.close());
  step('browser started');

  // Offline: the whole page from packs.
  await nginx.stop();
  const checkPage = async (headline, banner) => {
    const load = await s.loadThroughHost(browser, cache, pageUrl);
    try {
      assert.equal(await load.page.$eval('#headline', (e) => e.textContent), headline);
      assert.equal(await load.page.$eval('#count', (e) => e.textContent), '20');
      const tiles = await load.page.$$eval('img.tile', (images) => images.map((i) => i.complete && i.naturalWidth));
      assert.equal(tiles.length, s.kResourcesBesides - 39);
      assert.ok(tiles.every((w) => w === 8), 'every image decoded');
      assert.equal(load.served.length, s.kResourcesBesides + 1);
      const missed = load.served.filter((r) => !r.fromPack);
      assert.deepEqual(missed, [], 'every resource came from a pack');
      const shot = await load.page.screenshot({ type: 'png' });
      const pixel = await s.pixelAt(browser, shot, ...kBannerPixel);
      assert.ok(closeTo(pixel, banner), `banner pixel ${pixel} is ${banner}`);
    } finally {
      await load.page.close();
    }
    return load.ms;
  };
  step(`version one offline in ${(await checkPage('Version one', kBannerOne)).toFixed(0)} ms`);
  // The chart page, offline: the version its large script reports, every resource from the pack.
  const checkChart = async () => {
    const load = await s.loadThroughHost(browser, cache, `${s.kAppOrigin}/app/chart.html`);
    try {
      assert.deepEqual(load.served.filter((r) => !r.fromPack), [], 'every resource came from a pack');
      return await load.page.$eval('#version', (e) => e.textContent);
    } finally {
      await load.page.close();
    }
  };

  await t.test('load time: packs against nginx behind 100 ms of added latency', async () => {
    const fromPacks = [];
    for (let i = 0; i < kLoads; ++i) {
      const load = await s.loadThroughHost(browser, cache, pageUrl);
      assert.ok(load.served.every((r) => r.fromPack));
      fromPacks.push(load.ms);
      await load.page.close();
    }
    await nginx.start();
    const proxy = await s.startDelayProxy(port, kAddedLatencyMs);
    onCleanup('latency proxy', () => proxy.close());
    const network = await s.launchBrowser(`127.0.0.1:${proxy.port}`);
    onCleanup('network browser', () => network.close());
    const fromNetwork = [];
    for (let i = 0; i < kLoads; ++i) {
      const load = await s.loadThroughHost(network, cache, pageUrl, { intercept: false });
      assert.equal(await load.page.$eval('#headline', (e) => e.textContent), 'Version one');
      assert.equal(load.served.length, s.kResourcesBesides + 1);
      fromNetwork.push(load.ms);
      await load.page.close();
    }
    const packs = median(fromPacks);
    const net = median(fromNetwork);
    const ratio = net / packs;
    const line = `page of ${s.kResourcesBesides + 1} resources: packs ${packs.toFixed(0)} ms, ` +
      `nginx +${kAddedLatencyMs} ms ${net.toFixed(0)} ms, ratio ${ratio.toFixed(1)}x (goal 5x)`;
    console.log(`# ${line}`);
    if (timingsOut) fs.writeFileSync(timingsOut, JSON.stringify({ packs, network: net, ratio }));
    assert.ok(ratio >= kRatioFloor, line);
  });

  // Version two: two files change, the device fetches the increment.
  s.writeSite(siteRoot, { headline: 'Version two', banner: kBannerTwo });
  const second = s.publish(siteRoot, manifest, tree);
  assert.match(second, /story 2 \(increment from 1: 2 changed, 0 added, 0 removed\)/);
  await nginx.start();
  const updated = await update();
  step('version two installed');
  assert.deepEqual(updated.map((r) => [r.name, r.error]), [['story', undefined]]);
  assert.ok(nginx.requestedPaths().includes('/packs/story/i/2.zip'), 'the increment was fetched');
  assert.ok(!nginx.requestedPaths().includes('/packs/story/2.zip'), 'not the full zip');
  await nginx.stop();
  step(`version two offline in ${(await checkPage('Version two', kBannerTwo)).toFixed(0)} ms`);

  await t.test('nginx stopped in the middle of a download: the old version serves, the next trigger completes', async () => {
    writeHeadline(siteRoot, 'Version three');
    assert.match(s.publish(siteRoot, manifest, tree), /story 3 \(increment/);
    await nginx.start();
    beforeFetch = async (url) => {
      if (url.includes('/packs/')) await nginx.stop();
    };
    const failed = await update();
    beforeFetch = null;
    assert.equal(failed.length, 1);
    assert.ok(failed[0].error, 'the download failed');
    assert.equal(Number((await packs()).story.installedSeq), 2);
    await checkPage('Version two', kBannerTwo);
    await nginx.start();
    const retried = await update();
    assert.deepEqual(retried.map((r) => [r.name, r.error]), [['story', undefined]]);
    assert.equal(Number((await packs()).story.installedSeq), 3);
    await nginx.stop();
    await checkPage('Version three', kBannerTwo);
  });

  await t.test('a damaged zip on the server is refused and the old version kept', async () => {
    writeHeadline(siteRoot, 'Version four');
    assert.match(s.publish(siteRoot, manifest, tree), /story 4 \(increment/);
    for (const zip of ['packs/story/4.zip', 'packs/story/i/4.zip']) {
      const file = path.join(tree, zip);
      const bytes = fs.readFileSync(file);
      for (let i = 0; i < bytes.length; i += 7) bytes[i] ^= 0x5a;  // fixed damage, same size
      fs.writeFileSync(file, bytes);
    }
    await nginx.start();
    const refused = await update();
    assert.equal(refused.length, 1);
    assert.ok(refused[0].error, 'the damaged zip was refused');
    assert.equal(Number((await packs()).story.installedSeq), 3);
    await nginx.stop();
    await checkPage('Version three', kBannerTwo);
  });

  await t.test('a configuration with a bad signature is ignored', async () => {
    const before = (await cache.inspect('FerritDev.fconfig')).v;
    writeHeadline(siteRoot, 'Version five');
    assert.match(s.publish(siteRoot, manifest, tree), /story 5 \(increment/);
    const configs = [];
    const walk = (folder) => {
      for (const entry of fs.readdirSync(folder, { withFileTypes: true })) {
        const full = path.join(folder, entry.name);
        if (entry.isDirectory()) walk(full);
        else configs.push(full);
      }
    };
    walk(path.join(tree, 'fconfig'));
    for (const file of configs) {
      const text = fs.readFileSync(file, 'latin1');
      const at = text.lastIndexOf('||') + 2;
      const flipped = text[at] === 'A' ? 'B' : 'A';
      fs.writeFileSync(file, text.slice(0, at) + flipped + text.slice(at + 1), 'latin1');
    }
    await nginx.start();
    const refusal = await cache.update().then(() => null, (error) => error);
    assert.ok(refusal instanceof ferrit.FerritError, 'update() rejects');
    assert.match(refusal.message, /verify failed/);
    const entry = logged.find((e) => e.event === 'verifySignature');
    assert.ok(entry, 'the library logged the refusal');
    inspector.note('refused', { reason: entry.message });
    assert.equal((await cache.inspect('FerritDev.fconfig')).v, before, 'the configuration in force did not change');
    assert.notEqual(Number((await packs()).story.s), 5);
    await nginx.stop();
  });

  await t.test(`a server that answers after ${kSlowServerMs} ms: the page still loads from packs`, async () => {
    await nginx.start();
    const slow = await s.startDelayProxy(port, kSlowServerMs);
    onCleanup('slow proxy', () => slow.close());
    const slowBrowser = await s.launchBrowser(`127.0.0.1:${slow.port}`);
    onCleanup('slow browser', () => slowBrowser.close());
    const load = await s.loadThroughHost(slowBrowser, cache, pageUrl);
    assert.equal(await load.page.$eval('#headline', (e) => e.textContent), 'Version three');
    assert.ok(load.served.every((r) => r.fromPack));
    assert.ok(load.ms < kSlowServerMs, `loaded in ${load.ms} ms`);
    await load.page.close();
  });

  await t.test('the inspector page shows the packs, the disk, the caches and the last events', async () => {
    const { server, url } = await inspector.serveInspector();
    onCleanup('inspector server', () => new Promise((done) => {
      server.closeAllConnections();
      server.close(done);
    }));
    const page = await browser.newPage();
    await page.setViewport({ width: 900, height: 700 });
    await page.goto(url, { waitUntil: 'load' });
    const row = await page.$$eval('#packs tr.pack', (rows) => rows.map((r) => Array.from(r.cells, (c) => c.textContent)));
    assert.equal(row.length, 1);
    assert.equal(row[0][0], 'story');
    assert.equal(row[0][1], '3');
    assert.equal(row[0][2], '4');
    assert.ok(Number(row[0][3]) > 0, 'installed size');
    assert.equal(row[0][5], 'outdated');
    assert.ok(Number(row[0][4]) > 0, 'access score');
    const disk = await page.$eval('#disk', (e) => e.textContent);
    assert.match(disk, /Ferrit/);
    const budget = await page.$$eval('#budget tr', (rows) => rows.slice(1).map((r) => Number(r.cells[1].textContent)));
    assert.ok(budget.length === 2 && budget.every((b) => b > 0), 'the disk budget');
    const caches = await page.$$eval('#caches tr', (rows) => rows.slice(1).map((r) => r.cells[0].textContent));
    assert.deepEqual(caches, ['ModuleCache', 'UniApp', 'Ferrit', 'SCache', 'ACache']);
    const events = await page.$$eval('#events li', (items) => items.map((i) => i.textContent));
    assert.ok(events.some((e) => e.includes('refused')));
    assert.ok(events.some((e) => e.includes('pack story')));
    const shot = await page.screenshot({ type: 'png', fullPage: true });
    if (screenshotOut) fs.writeFileSync(screenshotOut, shot);
    await page.close();
  });

  await t.test('the site reverted to version one: its increment brings the device back offline', async () => {
    // The device is on version three; the files that versions two and three changed equal the
    // base's again, and the increment must carry them all the same.
    s.writeSite(siteRoot, { headline: 'Version one', banner: kBannerOne });
    const reverted = s.publish(siteRoot, manifest, tree);
    assert.match(reverted, /story 6 \(increment from 1: 2 changed, 0 added, 0 removed\)/);
    await nginx.start();
    const asked = requests.length;
    // A retry of the damaged version 4 may still be pending from the steps before: a request
    // made now is answered by version 6 all the same.
    const back = await update();
    assert.deepEqual(back.map((r) => [r.name, r.error]), [['story', undefined]], `asked for ${requests.slice(asked).join(' ')}`);
    assert.equal(Number((await packs()).story.installedSeq), 6);
    assert.ok(nginx.requestedPaths().includes('/packs/story/i/6.zip'), 'the increment was fetched');
    assert.ok(!nginx.requestedPaths().includes('/packs/story/6.zip'), 'not the full zip');
    await nginx.stop();
    step(`version one again offline in ${(await checkPage('Version one', kBannerOne)).toFixed(0)} ms`);
  });

  await t.test('one line of an 11 MB script changes: the device takes the patched increment', async () => {
    // The chart page's script is the same in every version so far; the device is on version six.
    const was = await checkChart();
    const fixed = `${was}-fixed`;
    assert.equal(s.changeScriptVersion(siteRoot, fixed), was, 'the page showed the script\'s own version');
    assert.match(s.publish(siteRoot, manifest, tree), /story 7 \(increment/);
    await nginx.start();
    assert.ok(fs.existsSync(path.join(tree, 'packs/story/p/7.zip')), 'the patched increment was published');
    const asked = requests.length;
    const patched = await update();
    assert.deepEqual(patched.map((r) => [r.name, r.error]), [['story', undefined]], `asked for ${requests.slice(asked).join(' ')}`);
    assert.equal(Number((await packs()).story.installedSeq), 7);
    const paths = nginx.requestedPaths();
    assert.ok(paths.includes('/packs/story/p/7.zip'), 'the patched increment was fetched');
    assert.ok(!paths.includes('/packs/story/i/7.zip'), 'not the plain increment');
    assert.ok(!paths.includes('/packs/story/7.zip'), 'not the full zip');
    // The inspector tells the form each update took: the patched one, none given up. Its check
    // of the configuration needs the server, so it asks before nginx stops.
    const reported = (await cache.inspect('FerritDev.update')).packs ?? [];
    const story = reported.filter((entry) => entry.name === 'story').at(-1);
    assert.ok(story, `the inspector reported the update: ${JSON.stringify(reported)}`);
    assert.equal(Number(story.seq), 7);
    assert.equal(story.form, 'patched');
    assert.equal(story.patchRefused, undefined, `the patched form was given up: ${story.patchRefused}`);
    const bytes = fs.statSync(path.join(tree, 'packs/story/p/7.zip')).size;
    step(`version seven by a patched increment of ${bytes} bytes`);
    await nginx.stop();
    assert.equal(await checkChart(), fixed);
    step('version seven offline');
  });
});

// Changes what the page shows: one file of the pack.
function writeHeadline(siteRoot, headline) {
  const file = path.join(siteRoot, 'app', 'js', 'part0.js');
  const text = fs.readFileSync(file, 'utf8').replace(/textContent = "[^"]*"/, `textContent = ${JSON.stringify(headline)}`);
  fs.writeFileSync(file, text);
}
