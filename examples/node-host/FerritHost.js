'use strict';
// A host of the Node module as an app would write one: the host object ("sendRequest",
// "createError", and the publisher's public key as "publicKey", with which the library checks
// every signed list and configuration document) sends the library's requests over real HTTP with
// Node's own fetch, and checks each configuration document's signature itself too, so that a
// refused one shows among its own events; start() runs the library's start-up order;
// getResource() answers a page's request from the packs; serveInspector() serves a small local
// page that shows what the inspector commands report.
const crypto = require('crypto');
const fs = require('fs');
const http = require('http');

const ferrit = require(process.env.FERRITCORE_PACKAGE || '../../node');

// The library marks each of its requests with what it asks for.
const kReferHeader = 'f-refer';
const kReferConfig = 'ferrit_config';
// The separator between a configuration document and its signature.
const kSignatureSeparator = '||';
// Transport failures handed back to the library: the request failed, or what came back was refused.
const kTransportFailed = 1;
const kRefused = 2;
// Environment 2 is "Release": the configuration and zip prefixes below are used.
const kEnvRelease = 2;
// Network status 1: unrestricted, so that every pack may download.
const kNetworkUnrestricted = 1;
// Bit 0 of setup's mode: the host calls startUpdateNative itself.
const kModeHostStartsUpdate = 1;
// How long the host waits for the library's first configuration before it goes on without one.
const kFirstConfigWaitMs = 15000;
const kPollMs = 20;
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

function delay(ms) {
  return new Promise((resolve) => setTimeout(resolve, ms));
}

function escapeHtml(text) {
  return String(text).replace(/[&<>"']/g, (c) => `&#${c.charCodeAt(0)};`);
}

class FerritHost {
  // options: root, rawFiles (folder or null), appKey, appVersion, locale, configPrefix, zipPrefix,
  // publicKeyPem (path of the Ed25519 public key that signs configuration documents).
  constructor(options) {
    this.options = options;
    const publicKeyFile = fs.readFileSync(options.publicKeyPem);
    this.publicKey = crypto.createPublicKey(publicKeyFile);
    this.requests = [];  // every URL the library asked for, in order
    this.events = [];    // the last update events, newest last
    this.started = false;
    // Called with each request before it is sent, and awaited: where a test or a demo stops the
    // server in the middle of a download.
    this.beforeFetch = null;
    const host = this;
    // The object the library calls: these two methods, and the key it checks signatures with.
    this.proxy = {
      publicKey: publicKeyFile,
      sendRequest(request, id) {
        host.send(request, id);
      },
      createError(code, message) {
        const error = new Error(message);
        error.code = code;
        return error;
      },
    };
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

  async send(request, id) {
    this.requests.push(request.url);
    const answer = (response, error) => ferrit.onSendRequestFinishedNative(id, response, error);
    const header = request.header ?? {};
    const isConfig = header[kReferHeader] === kReferConfig;
    try {
      if (this.beforeFetch) await this.beforeFetch(request);
      const options = { headers: header };
      if (request.timeout > 0) options.signal = AbortSignal.timeout(request.timeout * 1000);
      const response = await fetch(request.url, options);
      const body = Buffer.from(await response.arrayBuffer());
      const headers = {};
      response.headers.forEach((value, name) => {
        headers[name] = value;
      });
      if (isConfig && response.status === 200) {
        const refused = this.verifyDocument(body);
        if (refused) {
          this.note('refused', { url: request.url, reason: refused });
          answer(undefined, { code: kRefused, message: `${request.url}: ${refused}` });
          return;
        }
      }
      this.note(isConfig ? 'configuration' : 'download', {
        url: request.url,
        status: response.status,
        bytes: body.length,
      });
      if (request.tempFilePath) {
        await fs.promises.writeFile(request.tempFilePath, body);
        answer({ statusCode: response.status, header: headers });
      } else {
        answer({ statusCode: response.status, header: headers, content: body });
      }
    } catch (error) {
      const message = error.cause?.message || error.message;
      this.note('failed', { url: request.url, reason: message });
      answer(undefined, { code: kTransportFailed, message: `${request.url}: ${message}` });
    }
  }

  // The library's start-up order: the settings, setProxy, setup; once the first configuration
  // has arrived, startUpdate; then the configured packs are installed.
  async start() {
    const o = this.options;
    ferrit.setEnvNative(kEnvRelease);
    if (o.locale) ferrit.setLocaleNative(o.locale);
    ferrit.setNetworkStatusNative(kNetworkUnrestricted);
    ferrit.setDefaultConfigNative({ configPrefixRelease: o.configPrefix, zipPrefixRelease: o.zipPrefix });
    if (!ferrit.setProxyNative(this.proxy, o.root, o.rawFiles ?? null)) {
      throw new Error('setProxyNative refused the host object');
    }
    ferrit.setupNative(o.appKey, o.appVersion, kModeHostStartsUpdate);
    const deadline = Date.now() + kFirstConfigWaitMs;
    for (;;) {
      // setupNative is queued: until it has run, the inspector's agent is not registered yet.
      const info = await ferrit.inspect('FerritDev.info').catch(() => ({ error: ['NOT_SETUP'] }));
      const missing = info.error ?? [];
      if (!missing.includes('NOT_SETUP') && !missing.includes('NOT_UPDATE_CONFIG')) break;
      if (Date.now() > deadline) break;  // offline start: the packs already installed serve
      await delay(kPollMs);
    }
    ferrit.startUpdateNative();
    this.started = true;
    return this.installConfiguredPacks();
  }

  // Fetches the newest configuration, then installs what it names.
  async update() {
    try {
      await ferrit.inspect('FerritDev.update');
    } catch (error) {
      this.note('configuration', { reason: error.message });
    }
    return this.installConfiguredPacks();
  }

  // The configuration in force: {"v": version, "packs": {name: record}}.
  configuration() {
    return ferrit.inspect('FerritDev.fconfig');
  }

  // The records of the configuration in force, by name.
  async packs() {
    const document = await this.configuration();
    return document.packs ?? {};
  }

  // Until the library's update queue installs the configured packs by itself after startUpdate,
  // the host asks for each pack whose configured version is not the installed one. Once the queue
  // is there, this is where the host waits for its "onQueueFinished" instead.
  async installConfiguredPacks() {
    const packs = await this.packs();
    const results = await Promise.all(
      Object.entries(packs)
        .filter(([, record]) => Number(record.s ?? 0) !== Number(record.installedSeq ?? 0))
        .map(([name]) => this.updatePack(name)));
    return results;
  }

  updatePack(name) {
    return new Promise((resolve) => {
      const started = Date.now();
      ferrit.updatePackNative({ name }, (packName, error) => {
        const result = { name: packName, ms: Date.now() - started };
        if (error) result.error = `${error.code ?? ''} ${error.message ?? error}`.trim();
        this.note('pack', result);
        resolve(result);
      });
    });
  }

  // The library's answer to one request: {fromPack, is404, header, body, error}; body shares the
  // response's own bytes.
  getResource(url, header = {}) {
    return new Promise((resolve) => {
      ferrit.getResourceNative({ url, header }, (response) => {
        const body = response.data ? Buffer.from(response.data) : undefined;
        resolve({
          fromPack: !response.error && !response.is404 && body !== undefined,
          is404: response.is404,
          header: response.header ?? {},
          body,
          error: response.error ? `${response.error.code} ${response.error.message}` : undefined,
        });
      });
    });
  }

  // What the inspector page shows, from the inspector commands.
  async report() {
    const [info, fconfig, size, statistics, settings] = await Promise.all([
      ferrit.inspect('FerritDev.info'),
      ferrit.inspect('FerritDev.fconfig'),
      ferrit.inspect('FerritDev.size'),
      ferrit.inspect('FerritDev.statisitcs'),
      ferrit.inspect('FerritDev.config'),
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
    return { info, version: fconfig.v, packs, size, budget, events: this.events.slice().reverse() };
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
