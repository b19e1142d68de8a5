'use strict';
// What the Node tests share: a private temporary root, a raw-file folder with built-in packs, a
// publisher's key pair and documents signed with it, a host object that carries the public key
// and answers "sendRequest" from files and from a local HTTP server on 127.0.0.1, a deterministic
// random source, and waiting without the wall clock.
const crypto = require('crypto');
const fs = require('fs');
const http = require('http');
const os = require('os');
const path = require('path');

const ferrit = require('..');
const { removeTree } = require('./removeTree');

function tempRoot(t) {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'ferrit-node-'));
  if (t && t.after) t.after(() => removeTree(dir));
  return dir;
}

function md5(bytes) {
  return crypto.createHash('md5').update(bytes).digest('hex');
}

// The tests' publisher: a key pair made for this process, its public half as the PEM text that
// `ferrit keygen` writes.
const publisher = crypto.generateKeyPairSync('ed25519');
const publisherPem = publisher.publicKey.export({ format: 'pem', type: 'spki' });

// A configuration document as a server serves it: the JSON text, "||", and the base64 Ed25519
// signature of the text's lower-case hexadecimal MD5.
function signDocument(document, privateKey = publisher.privateKey) {
  const text = typeof document === 'string' ? document : JSON.stringify(document);
  const signature = crypto.sign(null, Buffer.from(md5(Buffer.from(text))), privateKey);
  return text + '||' + signature.toString('base64');
}

// Writes a raw-file folder with built-in packs: {name: {seq, prefix, files: {path: bytes}}}. Each
// pack is delivered with the app (type 96), its index embedded in "Ferrit_Asset.config".
function makeAssets(dir, packs) {
  const config = { v: '20241121', packs: {}, resources: {} };
  for (const [name, pack] of Object.entries(packs)) {
    config.packs[name] = { s: pack.seq, f: 96, p: [pack.prefix] };
    config.resources[name] = {};
    for (const [file, bytes] of Object.entries(pack.files)) {
      const target = path.join(dir, `Ferrit_Asset_${name}`, String(pack.seq), 'res', file);
      fs.mkdirSync(path.dirname(target), { recursive: true });
      fs.writeFileSync(target, bytes);
      config.resources[name][`res/${file}`] = { url: pack.prefix + file, v: md5(bytes) };
    }
  }
  fs.writeFileSync(path.join(dir, 'Ferrit_Asset.config'), JSON.stringify(config));
  return dir;
}

// A local HTTP server on loopback. `routes` maps a path to {status, body, header}, or is a
// function of the path that answers such a route or nothing; every other path is 404. Resolves
// with {server, base, hits}.
function startServer(routes) {
  const hits = [];
  const server = http.createServer((req, res) => {
    hits.push(req.url);
    const pathname = req.url.split('?')[0];
    const route = typeof routes === 'function' ? routes(pathname) : routes[pathname];
    if (!route) {
      res.writeHead(404);
      res.end();
      return;
    }
    res.writeHead(route.status ?? 200, route.header ?? {});
    res.end(route.body);
  });
  return new Promise((resolve) => {
    server.listen(0, '127.0.0.1', () => {
      resolve({ server, base: `http://127.0.0.1:${server.address().port}/`, hits });
    });
  });
}

// The host's bridge object. URLs that start with `httpBase` are fetched from the local server;
// URLs under "https://files.example.com/" are read from `filesFolder`; anything else fails in
// transport. `omitStatus` leaves "statusCode" out of successful answers, as a host that reports
// only content does. `publicKey` is the key that signatures are checked with, the tests'
// publisher's unless given.
function makeHost({ httpBase, filesFolder, omitStatus = false, publicKey = publisherPem } = {}) {
  const host = {
    publicKey,
    requests: [],
    errorsMade: [],
    sendRequest(request, id) {
      host.requests.push({ request, id });
      const answer = (response, error) => ferrit.onSendRequestFinishedNative(id, response, error);
      const finish = (status, header, body) => {
        if (request.tempFilePath) {
          fs.writeFileSync(request.tempFilePath, body);
          body = undefined;
        }
        const response = { header, content: body };
        if (!(omitStatus && status === 200)) response.statusCode = status;
        answer(response);
      };
      if (httpBase && request.url.startsWith(httpBase)) {
        http
          .get(request.url, { headers: request.header ?? {} }, (res) => {
            const chunks = [];
            res.on('data', (chunk) => chunks.push(chunk));
            res.on('end', () => {
              const header = {};
              for (const [name, value] of Object.entries(res.headers)) header[name] = String(value);
              finish(res.statusCode, header, Buffer.concat(chunks));
            });
          })
          .on('error', (error) => answer(undefined, { code: 1, message: error.message }));
        return;
      }
      const filesPrefix = 'https://files.example.com/';
      if (filesFolder && request.url.startsWith(filesPrefix)) {
        const file = path.join(filesFolder, request.url.slice(filesPrefix.length).split('?')[0]);
        if (!file.startsWith(filesFolder) || !fs.existsSync(file)) {
          setImmediate(() => finish(404, {}, Buffer.alloc(0)));
        } else {
          const body = fs.readFileSync(file);
          setImmediate(() => finish(200, { 'content-length': String(body.length) }, body));
        }
        return;
      }
      setImmediate(() => answer(undefined, { code: 7, message: 'no route to ' + request.url }));
    },
    createError(code, message) {
      const error = new Error(message);
      error.code = code;
      host.errorsMade.push(code);
      return error;
    },
  };
  return host;
}

// Waits, turn by turn of the event loop, until `predicate` holds; fails after `turns` turns.
async function waitFor(predicate, turns = 200000) {
  for (let i = 0; i < turns; ++i) {
    const value = await predicate();
    if (value) return value;
    await new Promise((resolve) => setImmediate(resolve));
  }
  throw new Error('condition never held');
}

// Keeps the event loop alive while work runs on the library's own threads.
function keepAlive(t) {
  const handle = setInterval(() => {}, 1 << 30);
  const release = () => clearInterval(handle);
  if (t && t.after) t.after(release);
  return release;
}

// mulberry32: a small generator with a fixed seed, so that a failing run can be repeated.
function random(seed) {
  let a = seed >>> 0;
  return () => {
    a = (a + 0x6d2b79f5) >>> 0;
    let t = a;
    t = Math.imul(t ^ (t >>> 15), t | 1);
    t ^= t + Math.imul(t ^ (t >>> 7), t | 61);
    return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
  };
}

function bytesOf(arrayBuffer) {
  return Buffer.from(arrayBuffer);
}

module.exports = {
  ferrit,
  tempRoot,
  md5,
  publisher,
  publisherPem,
  signDocument,
  makeAssets,
  startServer,
  makeHost,
  waitFor,
  keepAlive,
  random,
  bytesOf,
};
