'use strict';
// Serves a puppeteer-core page from a ferritcore cache: every request of the page (its frames,
// those of other sites in a process of their own too, and its dedicated workers) under the packs'
// URL prefixes pauses in the browser (the DevTools protocol's Fetch domain), the cache answers it,
// and a miss goes on to the network untouched. Requests outside the prefixes never pause.
//
// How a hit reaches the page decides how fast a large page is ready. Handing the body over the
// protocol means base64 in a JSON message (a 7 MB script becomes 9.3 MB of text that Chromium
// decodes again); instead, a body larger than `inlineLimit` is served by a loopback HTTP server
// of this helper, straight from the answer's Buffer, and the paused request is continued to it
// with Fetch.continueRequest's `url`, which the page does not observe: its document, its scripts
// and its fetches keep their own URLs, origins and CORS rules. Small bodies are cheaper inline
// (one protocol message and no connection), so they are fulfilled in the message.
const crypto = require('crypto');
const http = require('http');

// Bodies up to this many bytes are fulfilled in the protocol message; larger ones are served by
// the loopback server. Measured with a page of ten scripts of one size: inline took 116, 122 and
// 140 ms at 8, 32 and 64 KiB against 222, 154 and 157 through loopback; from 128 KiB on the
// loopback server was quicker (148 against 158 ms; at 1 MiB 302 against 450).
const kDefaultInlineLimit = 64 * 1024;
// Answer headers that describe the transfer rather than the resource: the body handed to the
// browser is the answer's bytes as they are, so their length is its own.
const kTransferHeaders = new Set(['content-length', 'transfer-encoding', 'connection', 'keep-alive']);
// The random part of a loopback address, so that no other local process guesses one in time.
const kTokenBytes = 18;
// How long a loopback answer waits for the browser's request before it is dropped.
const kLoopbackTokenMs = 60000;
// The inspector command that answers the configuration in force, whose pack records carry their
// URL prefixes as "p".
const kConfigurationCommand = 'FerritDev.fconfig';
// The status of a hit when its answer names none, and of a path nothing is parked under.
const kStatusOk = 200;
const kStatusNotFound = 404;

// A Fetch domain pattern that matches every URL starting with `prefix` (its own "*", "?" and "\"
// are taken literally).
function patternOf(prefix) {
  return `${prefix.replace(/[\\*?]/g, (c) => `\\${c}`)}*`;
}

// The URL prefixes of the packs in the cache's configuration; null when the cache cannot say.
async function configuredPrefixes(cache) {
  if (typeof cache.inspect !== 'function') return null;
  let document;
  try {
    document = await cache.inspect(kConfigurationCommand);
  } catch {
    return null;
  }
  const prefixes = new Set();
  for (const record of Object.values(document?.packs ?? {})) {
    for (const prefix of Array.isArray(record?.p) ? record.p : []) {
      if (typeof prefix === 'string' && prefix !== '') prefixes.add(prefix);
    }
  }
  return [...prefixes];
}

// The answer's headers for the browser. One that HTTP cannot carry (a line break in its value,
// say) is left out: the browser would refuse the whole answer for it.
function headerList(headers) {
  const list = [];
  for (const [name, raw] of Object.entries(headers ?? {})) {
    const value = String(raw);
    if (kTransferHeaders.has(name.toLowerCase())) continue;
    try {
      http.validateHeaderName(name);
      http.validateHeaderValue(name, value);
    } catch {
      continue;
    }
    list.push({ name, value });
  }
  return list;
}

function checkOptions(options) {
  const bad = (what) => {
    const error = new TypeError(`servePage: ${what}`);
    error.code = 'FERRIT_BAD_OPTION';
    return error;
  };
  if (options === null || typeof options !== 'object') return bad('options must be an object');
  const { prefixes, inlineLimit, sync } = options;
  if (prefixes !== undefined && (!Array.isArray(prefixes) || !prefixes.every((p) => typeof p === 'string' && p !== ''))) {
    return bad('prefixes must be an array of non-empty URL prefixes');
  }
  if (inlineLimit !== undefined && !(typeof inlineLimit === 'number' && inlineLimit >= 0)) {
    return bad('inlineLimit must be a number of bytes, 0 or more (Infinity: every body inline)');
  }
  if (sync !== undefined && typeof sync !== 'boolean') return bad('sync must be true or false');
  return null;
}

// The loopback server: each hit too large to go inline is parked under a random path until the
// browser asks for it once.
function startLoopback() {
  const parked = new Map();
  const sockets = new Set();
  const server = http.createServer((req, res) => {
    const entry = parked.get(req.url);
    if (!entry || (req.method !== 'GET' && req.method !== 'HEAD')) {
      res.writeHead(kStatusNotFound, { 'content-type': 'text/plain' });
      res.end('not parked here\n');
      return;
    }
    parked.delete(req.url);
    clearTimeout(entry.timer);
    const headers = {};
    for (const { name, value } of headerList(entry.answer.headers)) headers[name] = value;
    headers['content-length'] = String(entry.answer.body.length);
    try {
      res.writeHead(entry.answer.status ?? kStatusOk, headers);
      res.end(req.method === 'HEAD' ? undefined : entry.answer.body);
    } catch {
      // Nothing of a bad answer may take the host process down: the browser sees a failed load.
      res.destroy();
    }
  });
  server.keepAliveTimeout = kLoopbackTokenMs;
  server.on('connection', (socket) => {
    socket.setNoDelay(true);
    sockets.add(socket);
    socket.on('close', () => sockets.delete(socket));
  });
  return new Promise((resolve, reject) => {
    server.once('error', reject);
    server.listen(0, '127.0.0.1', () => {
      const base = `http://127.0.0.1:${server.address().port}`;
      resolve({
        park(answer) {
          const path = `/${crypto.randomBytes(kTokenBytes).toString('base64url')}`;
          const timer = setTimeout(() => parked.delete(path), kLoopbackTokenMs);
          timer.unref();
          parked.set(path, { answer, timer });
          return base + path;
        },
        close() {
          for (const { timer } of parked.values()) clearTimeout(timer);
          parked.clear();
          for (const socket of sockets) socket.destroy();
          return new Promise((done) => server.close(() => done()));
        },
      });
    });
  });
}

// options: prefixes (URL prefixes to answer from the cache; default: those of the packs in the
// cache's configuration, read again on each "packUpdated", or every URL when the cache cannot
// say), inlineLimit (bytes; larger bodies go through the loopback server), sync (ask getSync).
async function servePage(page, cache, options = {}) {
  const invalid = checkOptions(options);
  if (invalid) throw invalid;
  if (!page || typeof page.createCDPSession !== 'function') {
    const error = new TypeError('servePage: page must be a puppeteer-core Page');
    error.code = 'FERRIT_BAD_OPTION';
    throw error;
  }
  if (!cache || typeof cache.get !== 'function' || (options.sync && typeof cache.getSync !== 'function')) {
    const error = new TypeError('servePage: cache must have get(url, options) (and getSync with sync: true)');
    error.code = 'FERRIT_BAD_OPTION';
    throw error;
  }
  const inlineLimit = options.inlineLimit ?? kDefaultInlineLimit;
  const served = [];
  // The frames whose document the loopback server served.
  const loopbackFrames = new Set();
  const stats = {
    paused: 0,       // requests the browser paused for the cache
    fromPack: 0,     // answered from the cache
    toNetwork: 0,    // misses and other requests let go to the network
    inline: 0,       // hits fulfilled in the protocol message
    loopback: 0,     // hits served by the loopback server
    bytes: 0,        // body bytes from the cache
    cacheMs: 0,      // time spent waiting for the cache's answers, summed
    protocolMs: 0,   // time the browser took to take the answers (fulfil or continue), summed
  };

  const loopback = await startLoopback();
  let session;
  try {
    session = await page.createCDPSession();
  } catch (error) {
    await loopback.close();
    throw error;
  }
  let detached = false;

  // The page's own session, and one for each frame of another site that runs in a process of its
  // own: its requests pause there, not in the page's.
  const sessions = new Set([session]);

  const answerRequest = async (on, { requestId, request, resourceType, frameId }) => {
    // True when the browser took the answer; false when it refused it or the page went away
    // meanwhile (nothing is waiting for the request then).
    const send = async (method, params) => {
      const sent = performance.now();
      let taken = true;
      try {
        await on.send(method, params);
      } catch {
        taken = false;
      }
      stats.protocolMs += performance.now() - sent;
      return taken;
    };
    ++stats.paused;
    if (request.method !== 'GET' && request.method !== 'HEAD') {
      if (resourceType === 'Document') loopbackFrames.delete(frameId);
      ++stats.toNetwork;
      served.push({ url: request.url, fromPack: false });
      await send('Fetch.continueRequest', { requestId });
      return;
    }
    const opts = { headers: request.headers ?? {} };
    const referrer = request.headers?.Referer ?? request.headers?.referer;
    if (referrer) opts.referrer = referrer;
    const started = performance.now();
    let answer;
    try {
      answer = options.sync ? cache.getSync(request.url, opts) : await cache.get(request.url, opts);
    } catch (error) {
      answer = { hit: false, code: error?.code, reason: error?.message ?? String(error) };
    }
    stats.cacheMs += performance.now() - started;
    if (detached) return;
    if (!answer?.hit) {
      if (resourceType === 'Document') loopbackFrames.delete(frameId);
      ++stats.toNetwork;
      const entry = { url: request.url, fromPack: false };
      if (answer?.code !== undefined) entry.code = answer.code;
      if (answer?.reason !== undefined) entry.reason = answer.reason;
      served.push(entry);
      await send('Fetch.continueRequest', { requestId });
      return;
    }
    const body = answer.body ?? Buffer.alloc(0);
    ++stats.fromPack;
    stats.bytes += body.length;
    served.push({ url: request.url, fromPack: true });
    // The browser keeps a page whose document it did not fetch itself from reaching the more
    // private loopback address (its private-network rules): a document from the cache therefore
    // always comes from the loopback server, which puts its frame there too, and only the
    // frames so placed take their large bodies from it.
    const isDocument = resourceType === 'Document';
    const viaLoopback = inlineLimit !== Infinity &&
      (isDocument || (body.length > inlineLimit && loopbackFrames.has(frameId)));
    if (isDocument) {
      if (viaLoopback) loopbackFrames.add(frameId);
      else loopbackFrames.delete(frameId);
    }
    if (!viaLoopback) {
      ++stats.inline;
      const taken = await send('Fetch.fulfillRequest', {
        requestId,
        responseCode: answer.status ?? kStatusOk,
        responseHeaders: headerList(answer.headers),
        body: body.toString('base64'),
      });
      // An answer the browser refuses must not leave the request waiting: the network has it.
      if (!taken && !detached) await send('Fetch.continueRequest', { requestId });
    } else {
      ++stats.loopback;
      const url = loopback.park({ status: answer.status, headers: answer.headers, body });
      await send('Fetch.continueRequest', { requestId, url });
    }
  };
  let patterns = [];
  const enableOn = (on) => {
    // With no pattern the domain would pause everything; with no prefix nothing is to pause.
    return patterns.length === 0 ? on.send('Fetch.disable') : on.send('Fetch.enable', { patterns });
  };
  // Each session pauses its requests for the cache and attaches to the frames of other sites
  // below it, which wait until their requests pause too.
  const listen = (on) => {
    const onPaused = (event) => {
      answerRequest(on, event).catch(() => {});
    };
    const onAttached = (child) => {
      if (detached) return;
      sessions.add(child);
      listen(child);
      // The frame waits for this; it must go on even when its requests cannot pause.
      enableOn(child).catch(() => {}).then(() => child.send('Runtime.runIfWaitingForDebugger')).catch(() => {});
    };
    const onDetached = (child) => {
      sessions.delete(child);
    };
    on.on('Fetch.requestPaused', onPaused);
    on.on('sessionattached', onAttached);
    on.on('sessiondetached', onDetached);
    on.unlisten = () => {
      on.off('Fetch.requestPaused', onPaused);
      on.off('sessionattached', onAttached);
      on.off('sessiondetached', onDetached);
    };
    return on.send('Target.setAutoAttach', {
      autoAttach: true, waitForDebuggerOnStart: true, flatten: true, filter: [{ type: 'iframe', exclude: false }],
    }).catch(() => {});
  };

  const enable = async () => {
    const prefixes = options.prefixes ?? (await configuredPrefixes(cache));
    if (detached) return;
    patterns = prefixes === null ? [{ urlPattern: '*', requestStage: 'Request' }]
      : prefixes.map((p) => ({ urlPattern: patternOf(p), requestStage: 'Request' }));
    await Promise.all([...sessions].map((on) => enableOn(on).catch((error) => {
      if (on === session) throw error;
    })));
    server.prefixes = prefixes;
  };
  const onPackUpdated = () => {
    enable().catch(() => {});
  };

  const onPageClosed = () => {
    server.detach().catch(() => {});
  };
  const server = {
    served,
    stats,
    prefixes: null,
    async detach() {
      if (detached) return;
      detached = true;
      if (!options.prefixes && typeof cache.off === 'function') cache.off('packUpdated', onPackUpdated);
      if (typeof page.off === 'function') page.off('close', onPageClosed);
      for (const on of sessions) {
        on.unlisten?.();
        await on.send('Fetch.disable').catch(() => {});
      }
      await session.send('Target.setAutoAttach', { autoAttach: false, waitForDebuggerOnStart: false }).catch(() => {});
      await session.detach().catch(() => {});
      await loopback.close();
    },
  };
  try {
    await enable();
    await listen(session);
  } catch (error) {
    await server.detach();
    throw error;
  }
  if (!options.prefixes && typeof cache.on === 'function') cache.on('packUpdated', onPackUpdated);
  // A closed page needs no server: its loopback server closes with it.
  if (typeof page.once === 'function') page.once('close', onPageClosed);
  return server;
}

module.exports = { servePage };
