'use strict';
// A host of the Node package as an app would write one, on open(): the cache's requests go
// through this host's own fetch, which records them, lets a test or a demo step in before each
// one (beforeFetch), and checks each configuration document's signature itself too, so that a
// refused one shows among its own events (the library checks it again with the same key);
// start() opens the cache and installs what the configuration names; getResource() answers a
// page's request from the packs; serveInspector() serves a small local page of what the
// inspector commands report.
const crypto = require('crypto');
const fs = require('fs');
const http = require('http');

const ferrit = require(process.env.FERRITCORE_PACKAGE || '../../node');

// The library marks each of its requests with what it asks for.
const kReferHeader = 'f-refer';
const kReferConfig = 'ferrit_config';
// The separator between a configuration document and its signature.
const kSignatureSeparator = '||';
const kStatusOk = 200;
// The library's disk budget for each kind of pack when the configuration sets none
// (Settings::kDefaultSizeLimit, 50 MiB).
const kDefaultSizeLimit = 52428800;
// How many update events the inspector page keeps.
const kEventsKept = 50;
// How many of them the page shows, newest first.
const kEventsShown = 12;

function md5Hex(bytes) {
  return crypto.createHash('md5').update(bytes).digest('hex');
}

function escapeHtml(text) {
  return String(text).replace(/[&<>"']/g, (c) => `&#${c.charCodeAt(0)};`);
}

class FerritHost {
  // options: root, rawFiles (folder or null), appKey, appVersion, locale, configPrefix (the
  // published tree's address), zipPrefix (its packs' address), publicKeyPem (path of the Ed25519
  // public key that signs the tree).
  constructor(options) {
    this.options = options;
    this.publicKeyFile = fs.readFileSync(options.publicKeyPem);
    this.publicKey = crypto.createPublicKey(this.publicKeyFile);
    this.requests = [];  // every URL the library asked for, in order
    this.events = [];    // the last update events, newest last
    this.cache = null;   // the FerritCache, once started
    // Called with each request ({url, header}) before it is sent, and awaited: where a test or a
    // demo stops the server in the middle of a download.
    this.beforeFetch = null;
    // What the cache's "packUpdated" reaches; a page server may chain in front of it.
    this.proxy = { onPackUpdated: (name) => this.note('updated', { name }) };
  }

  note(kind, detail) {
    this.events.push({ time: new Date().toISOString(), kind, ...detail });
    if (this.events.length > kEventsKept) this.events.shift();
  }

  // The signature is Ed25519 over the lower-case hexadecimal MD5 of the text before "||".
  verifyDocument(body) {
    const text = body.toString('latin1');
    const at = text.lastIndexOf(kSignatureSeparator);
    if (at < 0) return 'the document carries no signature';
    const signed = Buffer.from(text.slice(0, at), 'latin1');
    const signature = Buffer.from(text.slice(at + kSignatureSeparator.length), 'base64');
    const valid = crypto.verify(null, Buffer.from(md5Hex(signed)), this.publicKey, signature);
    return valid ? null : 'the signature does not verify';
  }

  // The fetch the cache sends every request of the library with.
  async fetch(url, init) {
    this.requests.push(url);
    const isConfig = init.headers?.[kReferHeader] === kReferConfig;
    let response;
    try {
      if (this.beforeFetch) await this.beforeFetch({ url, header: init.headers });
      response = await fetch(url, init);
    } catch (error) {
      this.note('failed', { url, reason: error.cause?.message || error.message });
      throw error;
    }
    if (!isConfig || response.status !== kStatusOk) {
      this.note(isConfig ? 'configuration' : 'download', {
        url, status: response.status, bytes: Number(response.headers.get('content-length') ?? 0),
      });
      return response;
    }
    const body = Buffer.from(await response.arrayBuffer());
    const refused = this.verifyDocument(body);
    if (refused) {
      this.note('refused', { url, reason: refused });
      throw new Error(`${url}: ${refused}`);
    }
    this.note('configuration', { url, status: response.status, bytes: body.length });
    return new Response(body, { status: response.status, headers: response.headers });
  }

  // Opens the cache (the library sets itself up, and updates by itself once the first
  // configuration has arrived), then fetches the newest configuration and installs what it
  // names. Offline, what is installed serves.
  async start() {
    const o = this.options;
    this.cache = await ferrit.open({
      root: o.root, appKey: o.appKey, appVersion: o.appVersion, publicKey: this.publicKeyFile,
      server: o.configPrefix, packs: o.zipPrefix, fetch: (url, init) => this.fetch(url, init),
      ...(o.locale ? { locale: o.locale } : {}), ...(o.rawFiles ? { rawFiles: o.rawFiles } : {}),
    });
    this.cache.on('packUpdated', (name) => this.proxy.onPackUpdated?.(name));
    this.cache.on('state', (status) => this.note('state', { reason: `${status.state}, ${status.storage}` }));
    return this.update();
  }

  // Fetches the newest configuration, then installs what it names: one result per pack
  // ({name, ms, error?}). When the configuration cannot be fetched, the one in force is
  // installed.
  async update() {
    const started = Date.now();
    let packs;
    try {
      ({ packs } = await this.cache.update());
    } catch (error) {
      this.note('configuration', { reason: error.message });
      return this.installConfiguredPacks();
    }
    return packs.map(({ name, error }) => this.result(name, started, error));
  }

  // The configuration in force: {"v": version, "packs": {name: record}}.
  configuration() {
    return this.cache.inspect('FerritDev.fconfig');
  }

  // The records of the configuration in force, by name.
  async packs() {
    const document = await this.configuration();
    return document.packs ?? {};
  }

  // Installs each pack whose configured version is not the installed one.
  async installConfiguredPacks() {
    const { packs } = await this.cache.status();
    return Promise.all(Object.entries(packs)
      .filter(([, pack]) => pack.configured !== pack.installed)
      .map(([name]) => this.updatePack(name)));
  }

  async updatePack(name) {
    const started = Date.now();
    const { error } = await this.cache.update(name);
    return this.result(name, started, error);
  }

  result(name, started, error) {
    const result = { name, ms: Date.now() - started };
    if (error) result.error = `${error.code ?? ''} ${error.message}`.trim();
    this.note('pack', result);
    return result;
  }

  // The library's answer to one request: {fromPack, is404, header, body, error}.
  async getResource(url, header = {}) {
    const answer = await this.cache.get(url, { headers: header });
    return answer.hit ?
      { fromPack: true, is404: false, header: answer.headers, body: answer.body, error: undefined } :
      { fromPack: false, is404: answer.is404, header: {}, body: undefined, error: `${answer.code} ${answer.reason}` };
  }

  close() {
    return this.cache?.close();
  }

  // What the inspector page shows, from the inspector commands.
  async report() {
    const inspect = (command) => this.cache.inspect(command);
    const [status, info, fconfig, size, statistics, settings] = await Promise.all([
      this.cache.status(),
      inspect('FerritDev.info'),
      inspect('FerritDev.fconfig'),
      inspect('FerritDev.size'),
      inspect('FerritDev.statisitcs'),
      inspect('FerritDev.config'),
    ]);
    // Access statistics: each pack's decaying access count is its score.
    const scores = statistics.packs ?? statistics;
    const scoreOf = (name) => {
      const entry = scores?.[name];
      const value = typeof entry === 'number' ? entry : entry?.accessCount;
      return typeof value === 'number' ? value : null;
    };
    const packs = Object.entries(fconfig.packs ?? {}).map(([name, record]) => ({
      name,
      configuredSeq: Number(record.s ?? 0),
      installedSeq: Number(record.installedSeq ?? 0),
      size: Number(record.installedSize ?? 0),
      score: scoreOf(name),
      state: Number(record.installedSeq ?? 0) === 0 ? 'not installed'
        : Number(record.installedSeq) === Number(record.s ?? 0) ? 'current' : 'outdated',
    }));
    // The disk budget of each kind of pack: the configuration's, else the library's built-in one.
    const budget = {
      Ferrit: Number(settings.ferritSizeLimit ?? kDefaultSizeLimit),
      ACache: Number(settings.acacheSizeLimit ?? kDefaultSizeLimit),
    };
    return { status, info, version: fconfig.v, packs, size, budget, events: this.events.slice().reverse() };
  }

  async inspectorPage() {
    const r = await this.report();
    const rows = r.packs.map((p) => `<tr class="pack" data-name="${escapeHtml(p.name)}"><td>${escapeHtml(p.name)}</td>` +
      `<td>${p.installedSeq}</td><td>${p.configuredSeq}</td><td>${p.size}</td>` +
      `<td>${p.score === null ? '' : p.score.toFixed(3)}</td>` +
      `<td>${escapeHtml(p.state)}</td></tr>`).join('');
    const disk = Object.entries(r.size.diskSize ?? {}).map(([k, v]) => `<tr><td>${escapeHtml(k)}</td><td>${v}</td></tr>`).join('');
    const caches = Object.entries(r.size).filter(([k]) => k !== 'diskSize')
      .map(([k, v]) => `<tr><td>${escapeHtml(k)}</td><td>${v.count}</td><td>${v.size}</td></tr>`).join('');
    const budget = Object.entries(r.budget).map(([k, v]) => `<tr><td>${escapeHtml(k)}</td><td>${v}</td></tr>`).join('');
    // Repeats in a row (a page's visits asking for the same download) show once, with a count.
    const lines = [];
    for (const e of r.events) {
      const text = `${e.kind} ${e.name ?? e.url ?? ''} ${e.error ?? e.reason ?? (e.status ?? '')}`;
      const last = lines[lines.length - 1];
      if (last && last.text === text) ++last.count;
      else lines.push({ time: e.time, text, count: 1 });
    }
    const events = lines.slice(0, kEventsShown).map((l) => `<li>${escapeHtml(l.time)} ${escapeHtml(l.text)}` +
      `${l.count > 1 ? ` (${l.count} times)` : ''}</li>`).join('');
    return `<!doctype html><html><head><meta charset="utf-8"><title>ferritcore inspector</title>
<style>body{font:14px sans-serif;margin:20px;background:#fafafa}table{border-collapse:collapse;margin-bottom:16px}
td,th{border:1px solid #bbb;padding:4px 10px;text-align:left}th{background:#dde6f0}h2{margin:16px 0 6px}</style></head>
<body><h1>ferritcore inspector</h1><p id="version">configuration version ${escapeHtml(r.version ?? '')}</p>
<p id="state">${escapeHtml(r.status.state)}, storage ${escapeHtml(r.status.storage)}</p>
<ul id="problems">${r.status.problems.map((p) => `<li>${escapeHtml(p)}</li>`).join('')}</ul>
<h2>Packs</h2><table id="packs"><tr><th>name</th><th>installed</th><th>configured</th><th>size</th><th>access score</th><th>state</th></tr>${rows}</table>
<h2>Disk</h2><table id="disk"><tr><th>store</th><th>bytes</th></tr>${disk}</table>
<table id="budget"><tr><th>budget</th><th>bytes</th></tr>${budget}</table>
<h2>Caches</h2><table id="caches"><tr><th>cache</th><th>entries</th><th>bytes</th></tr>${caches}</table>
<h2>Last update events</h2><ul id="events">${events}</ul></body></html>`;
  }

  // Serves the inspector page on a loopback port; resolves with {server, url}.
  serveInspector(port = 0) {
    const server = http.createServer(async (req, res) => {
      try {
        if (req.url === '/report.json') {
          res.writeHead(200, { 'content-type': 'application/json' });
          res.end(JSON.stringify(await this.report()));
          return;
        }
        res.writeHead(200, { 'content-type': 'text/html; charset=utf-8' });
        res.end(await this.inspectorPage());
      } catch (error) {
        res.writeHead(500, { 'content-type': 'text/plain' });
        res.end(String(error));
      }
    });
    return new Promise((resolve) => {
      server.listen(port, '127.0.0.1', () => {
        resolve({ server, url: `http://127.0.0.1:${server.address().port}/` });
      });
    });
  }
}

module.exports = { FerritHost, ferrit };
