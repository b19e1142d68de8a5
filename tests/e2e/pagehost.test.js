'use strict';
// servePage on a real Chromium with a cache held in memory (the contract's get/inspect and its
// "packUpdated" event): the page cannot tell a body served by the helper's loopback server from
// one fulfilled in the protocol message or from the network. Its location, its scripts' own
// URLs, its fetches' URLs and their CORS and same-origin rules stay those of the page's URLs,
// over http and over https; misses and URLs outside the packs go to the network; detach() lets
// everything go to the network again.
const assert = require('node:assert/strict');
const { EventEmitter } = require('events');
const http = require('http');
const { test } = require('node:test');

const s = require('./support');
const { servePage } = require('../../node/browser');

const kOther = 'other.test';
const kSecure = 'secure.test';
const kAppPrefix = `${s.kAppOrigin}/app/`;
const kOtherPrefix = `http://${kOther}/lib/`;
const kSecurePrefix = `https://${kSecure}/app/`;
// The code and words of the cache's miss.
const kMissCode = 3004;
const kMissReason = 'not in any installed pack';
// Large enough that the loopback path is the one a default servePage takes for it.
const kLargeBytes = 300 * 1024;

function js(text) {
  return { headers: { 'Content-Type': 'application/javascript' }, body: Buffer.from(text) };
}

// The page: a classic script and a module script (both large), which report what the page sees.
function appFiles(prefix, otherPrefix) {
  const padding = `/*${'x'.repeat(kLargeBytes)}*/\n`;
  return {
    [`${prefix}index.html`]: {
      headers: { 'Content-Type': 'text/html; charset=utf-8' },
      body: Buffer.from('<!doctype html><html><head><meta charset="utf-8"><script src="classic.js"></script>' +
        '<link rel="stylesheet" href="small.css">' +
        '<script type="module" src="main.mjs"></script></head><body>served</body></html>'),
    },
    [`${prefix}classic.js`]: {
      // A header HTTP cannot carry does not keep the file from the page.
      headers: { 'Content-Type': 'application/javascript', 'X-Bad': 'line\nbreak' },
      body: Buffer.from(`${padding}window.classic = { src: document.currentScript.src };\n`),
    },
    [`${prefix}main.mjs`]: js(`${padding}
const out = { secure: isSecureContext, href: location.href, origin: location.origin, moduleUrl: import.meta.url, classic: window.classic };
const same = await fetch('data.json');
out.same = { url: same.url, type: same.type, status: same.status, body: (await same.json()).n };
for (const name of ['open', 'closed']) {
  try {
    const r = await fetch('${otherPrefix}' + name + '.json');
    out[name] = { url: r.url, type: r.type, body: (await r.json()).n };
  } catch (e) {
    out[name] = 'blocked';
  }
}
try {
  out.crossModule = (await import('${otherPrefix}closed.mjs')).default;
} catch (e) {
  out.crossModule = 'blocked';
}
out.openModule = (await import('${otherPrefix}open.mjs')).default;
const worker = new Worker('worker.js');
out.worker = await new Promise((resolve) => { worker.onmessage = (e) => resolve(e.data); });
for (const [name, url] of [['missing', 'missing.txt'], ['outside', '/outside.txt']]) {
  try {
    const r = await fetch(url);
    out[name] = { status: r.status, body: await r.text() };
  } catch (e) {
    out[name] = 'failed';
  }
}
window.result = out;
`),
    [`${prefix}small.css`]: { headers: { 'Content-Type': 'text/css' }, body: Buffer.from('body { margin: 0 }\n') },
    [`${prefix}data.json`]: { headers: { 'Content-Type': 'application/json' }, body: Buffer.from(JSON.stringify({ n: 1, pad: 'y'.repeat(kLargeBytes) })) },
    [`${prefix}worker.js`]: js(`${padding}fetch('data.json').then((r) => r.json()).then((d) => postMessage({ href: self.location.href, n: d.n }));\n`),
  };
}

function otherFiles(prefix) {
  const cors = { 'Access-Control-Allow-Origin': '*' };
  return {
    [`${prefix}open.json`]: { headers: { 'Content-Type': 'application/json', ...cors }, body: Buffer.from(JSON.stringify({ n: 2, pad: 'z'.repeat(kLargeBytes) })) },
    [`${prefix}closed.json`]: { headers: { 'Content-Type': 'application/json' }, body: Buffer.from(JSON.stringify({ n: 3, pad: 'z'.repeat(kLargeBytes) })) },
    [`${prefix}open.mjs`]: { headers: { 'Content-Type': 'application/javascript', ...cors }, body: Buffer.from(`/*${'o'.repeat(kLargeBytes)}*/ export default 'open';\n`) },
    [`${prefix}closed.mjs`]: { headers: { 'Content-Type': 'application/javascript' }, body: Buffer.from(`/*${'c'.repeat(kLargeBytes)}*/ export default 'closed';\n`) },
  };
}

// The contract's cache over a map of URL to { headers, body }; the configuration names the packs'
// prefixes, and addPack() adds one as an update would.
class MemoryCache extends EventEmitter {
  constructor(files, prefixes) {
    super();
    this.files = files;
    this.prefixes = prefixes;
    this.asked = [];
    this.syncCalls = 0;
  }

  getSync(url, opts) {
    ++this.syncCalls;
    return this.lookup(url, opts);
  }

  lookup(url, opts) {
    this.asked.push({ url, headers: opts?.headers });
    const file = this.files[url];
    if (!file) {
      const error = Object.assign(new Error(kMissReason), { code: kMissCode });
      return { hit: false, url, is404: false, code: kMissCode, reason: kMissReason, error };
    }
    return { hit: true, url, status: 200, headers: file.headers, body: file.body, md5: '' };
  }

  async get(url, opts) {
    await new Promise(setImmediate);
    return this.lookup(url, opts);
  }

  async inspect(command) {
    assert.equal(command, 'FerritDev.fconfig');
    return { v: '1', packs: Object.fromEntries(this.prefixes.map((p, i) => [`pack${i}`, { s: 1, p: [p] }])) };
  }

  addPack(prefix, files) {
    this.prefixes.push(prefix);
    Object.assign(this.files, files);
    this.emit('packUpdated', `pack${this.prefixes.length - 1}`);
  }
}

// "The network": what every host name resolves to. It answers what the packs miss.
function startNetwork() {
  const requested = [];
  const server = http.createServer((req, res) => {
    requested.push(`${req.headers.host}${req.url}`);
    res.writeHead(req.url.endsWith('.html') || req.url.endsWith('.txt') ? 200 : 404, {
      'content-type': req.url.endsWith('.html') ? 'text/html' : 'text/plain',
    });
    if (req.url === '/plain/index.html') {
      // A page of the network that takes a large script from the packs.
      res.end('<!doctype html><script src="/app/classic.js"></script><body>from the network</body>');
    } else {
      res.end(req.url.endsWith('.html') ? '<!doctype html><body>from the network</body>' : `network ${req.url}`);
    }
  });
  return new Promise((resolve) => server.listen(0, '127.0.0.1', () => resolve({
    port: server.address().port,
    requested,
    close: () => new Promise((done) => {
      server.closeAllConnections();
      server.close(done);
    }),
  })));
}

async function observe(browser, cache, url, options) {
  const page = await browser.newPage();
  await page.setCacheEnabled(false);
  const served = await servePage(page, cache, options);
  try {
    await page.goto(url, { waitUntil: 'load' });
    await page.waitForFunction(() => window.result, { timeout: 10000 });
    return { result: await page.evaluate(() => window.result), served, page };
  } finally {
    await served.detach();
  }
}

test('servePage: the page cannot tell the loopback path from its own URLs', { timeout: 60000 }, async (t) => {
  const network = await startNetwork();
  t.after(() => network.close());
  const browser = await s.launchBrowser(`127.0.0.1:${network.port}`, { hosts: [kOther, kSecure] });
  t.after(() => browser.close());
  const cache = new MemoryCache({ ...appFiles(kAppPrefix, kOtherPrefix), ...otherFiles(kOtherPrefix) }, [kAppPrefix, kOtherPrefix]);

  const expected = (prefix, otherPrefix = kOtherPrefix) => {
    const origin = new URL(prefix).origin;
    return {
      href: `${prefix}index.html`,
      origin,
      moduleUrl: `${prefix}main.mjs`,
      classic: { src: `${prefix}classic.js` },
      same: { url: `${prefix}data.json`, type: 'basic', status: 200, body: 1 },
      open: { url: `${otherPrefix}open.json`, type: 'cors', body: 2 },
      closed: 'blocked',
      crossModule: 'blocked',
      openModule: 'open',
      worker: { href: `${prefix}worker.js`, n: 1 },
      secure: prefix.startsWith('https:'),
      missing: { status: 200, body: 'network /app/missing.txt' },
      outside: { status: 200, body: 'network /outside.txt' },
    };
  };

  for (const [label, inlineLimit, sync] of [['every body through the loopback server', 0], ['every body inline', Infinity],
    ['the default split', undefined], ['the default split, asking getSync', undefined, true]]) {
    await t.test(`http page, ${label}`, async () => {
      network.requested.length = 0;
      const syncCalls = cache.syncCalls;
      const options = { ...(inlineLimit === undefined ? {} : { inlineLimit }), ...(sync ? { sync } : {}) };
      const { result, served, page } = await observe(browser, cache, `${kAppPrefix}index.html`, options);
      assert.equal(cache.syncCalls - syncCalls, sync ? served.stats.paused : 0);
      await page.close();
      // A document fulfilled in the protocol message has no address of its own, so the browser
      // holds it to the rules of a public site: the network on loopback is out of its reach.
      assert.deepEqual(result, inlineLimit === Infinity ? { ...expected(kAppPrefix), missing: 'failed', outside: 'failed' }
        : expected(kAppPrefix));
      assert.deepEqual(served.prefixes, [kAppPrefix, kOtherPrefix]);
      // Every file of the packs came from the cache, the worker's script too.
      const fromPack = [...new Set(served.served.filter((r) => r.fromPack).map((r) => r.url))].sort();
      assert.deepEqual(fromPack, Object.keys(cache.files).sort());
      // The miss went to the network with the cache's code; the URL outside the packs never paused.
      assert.deepEqual(served.served.filter((r) => !r.fromPack), [{ url: `${kAppPrefix}missing.txt`, fromPack: false, code: kMissCode, reason: kMissReason }]);
      assert.deepEqual(network.requested.filter((r) => !r.endsWith('/favicon.ico')).sort(),
        inlineLimit === Infinity ? [] : ['story.test/app/missing.txt', 'story.test/outside.txt']);
      if (inlineLimit === 0) assert.equal(served.stats.inline, 0);
      if (inlineLimit === Infinity) assert.equal(served.stats.loopback, 0);
      if (inlineLimit === undefined) assert.ok(served.stats.inline > 0 && served.stats.loopback > 0, JSON.stringify(served.stats));
      assert.equal(served.stats.fromPack, served.stats.inline + served.stats.loopback);
    });
  }

  await t.test('https page with the loopback server on http', async () => {
    const otherSecure = `https://${kOther}/lib/`;
    cache.addPack(kSecurePrefix, appFiles(kSecurePrefix, otherSecure));
    cache.addPack(otherSecure, otherFiles(otherSecure));
    const { result, served, page } = await observe(browser, cache, `${kSecurePrefix}index.html`, { inlineLimit: 0 });
    await page.close();
    // Nothing listens for https on the network: what the packs do not hold fails to load.
    assert.deepEqual(result, { ...expected(kSecurePrefix, otherSecure), missing: 'failed', outside: 'failed' });
    assert.equal(served.stats.inline, 0);
    assert.equal(served.stats.loopback, served.stats.fromPack);
  });

  await t.test('a pack installed later is served without a new servePage', async () => {
    const prefix = 'http://story.test/late/';
    const page = await browser.newPage();
    await page.setCacheEnabled(false);
    const server = await servePage(page, cache, { inlineLimit: 0 });
    cache.addPack(prefix, { [`${prefix}index.html`]: { headers: { 'Content-Type': 'text/html' }, body: Buffer.from('<body>late pack</body>') } });
    const deadline = Date.now() + 5000;
    while (!server.prefixes.includes(prefix)) {
      assert.ok(Date.now() < deadline, 'the prefixes were read again');
      await new Promise(setImmediate);
    }
    await page.goto(`${prefix}index.html`);
    assert.equal(await page.$eval('body', (b) => b.textContent), 'late pack');
    await server.detach();
    await page.close();
  });

  await t.test('a frame of another site, in a process of its own, is served too', async () => {
    const frameCache = new MemoryCache({
      [`${kAppPrefix}framed.html`]: { headers: { 'Content-Type': 'text/html' }, body: Buffer.from(`<iframe src="${kOtherPrefix}frame.html"></iframe>`) },
      [`${kOtherPrefix}frame.html`]: { headers: { 'Content-Type': 'text/html' }, body: Buffer.from('<script src="frame.js"></script>') },
      [`${kOtherPrefix}frame.js`]: js(`/*${'f'.repeat(kLargeBytes)}*/ parent.postMessage({ href: location.href, ran: true }, '*');\n`),
    }, [kAppPrefix, kOtherPrefix]);
    const page = await browser.newPage();
    await page.setCacheEnabled(false);
    const server = await servePage(page, frameCache);
    await page.evaluateOnNewDocument(() => {
      window.addEventListener('message', (e) => { window.framed = e.data; });
    });
    await page.goto(`${kAppPrefix}framed.html`);
    await page.waitForFunction(() => window.framed, { timeout: 10000 });
    assert.deepEqual(await page.evaluate(() => window.framed), { href: `${kOtherPrefix}frame.html`, ran: true });
    assert.deepEqual(server.served.map((r) => [r.url, r.fromPack]), Object.keys(frameCache.files).map((u) => [u, true]));
    assert.equal(server.stats.loopback, 3);
    await page.close();
  });

  await t.test('a page from the network takes even large bodies from the packs inline', async () => {
    const page = await browser.newPage();
    await page.setCacheEnabled(false);
    const server = await servePage(page, cache);
    await page.goto(`${s.kAppOrigin}/plain/index.html`);
    assert.deepEqual(await page.evaluate(() => window.classic), { src: `${kAppPrefix}classic.js` });
    assert.deepEqual(server.served, [{ url: `${kAppPrefix}classic.js`, fromPack: true }]);
    assert.deepEqual([server.stats.inline, server.stats.loopback], [1, 0]);
    await page.close();
  });

  await t.test('arguments that are not what servePage takes are refused before anything starts', async () => {
    const page = await browser.newPage();
    for (const [p, c, o, words] of [
      [page, cache, { inlineLimit: -1 }, /inlineLimit/],
      [page, cache, { prefixes: 'http://story.test/' }, /prefixes/],
      [page, cache, { sync: 'yes' }, /sync/],
      [page, cache, null, /options/],
      [{}, cache, {}, /puppeteer-core Page/],
      [page, {}, {}, /cache must have get/],
      [page, { get: cache.get }, { sync: true }, /getSync/],
    ]) {
      await assert.rejects(servePage(p, c, o), (error) => error.code === 'FERRIT_BAD_OPTION' && words.test(error.message));
    }
    await page.close();
  });

  await t.test('after detach() the page goes to the network', async () => {
    const page = await browser.newPage();
    await page.setCacheEnabled(false);
    const server = await servePage(page, cache);
    await server.detach();
    await page.goto(`${kAppPrefix}index.html`);
    assert.equal(await page.$eval('body', (b) => b.textContent), 'from the network');
    assert.deepEqual(server.served, []);
    await page.close();
  });
});
