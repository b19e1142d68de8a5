'use strict';
// What the tests of open() share: a site published with the build's `ferrit publish` and the
// sample publisher's key into a tree, a loopback server that serves the tree as a static server
// does and can be stopped and started again on the same port, and waiting for events with a
// deadline that only guards against a hang, and running a node child that may hang.
const { execFileSync, spawn } = require('child_process');
const fs = require('fs');
const http = require('http');
const path = require('path');

const addon = process.env.FERRITCORE_ADDON || path.join(__dirname, '..', '..', 'build', 'node', 'ferritcore.node');
const ferritTool = process.env.FERRIT_TOOL || path.join(path.dirname(addon), '..', 'tools', 'ferrit');
const sampleKeys = path.join(__dirname, '..', '..', 'tools', 'sample', 'keys');
const publisherPrivate = path.join(sampleKeys, 'sample-ed25519.pem');
const publisherPublic = path.join(sampleKeys, 'sample-ed25519.pub.pem');

const APP = { appKey: 'demo', appVersion: '1.0', locale: 'en-US' };
const PREFIX = 'https://demo.example.com/app/';
// A failure guard only: every wait ends on an event long before it.
const kDeadlineMs = 8000;

// Writes `files` ({path: text}) below dir/site/app and publishes the site into dir/tree for the
// app, signed with `key` (the sample publisher's private key unless given); publishing again after
// a change adds the new version and its increment.
function publish(dir, files, app = APP, key = publisherPrivate) {
  const site = path.join(dir, 'site');
  for (const [file, text] of Object.entries(files)) {
    const target = path.join(site, 'app', file);
    fs.mkdirSync(path.dirname(target), { recursive: true });
    fs.writeFileSync(target, text);
  }
  const manifest = path.join(dir, 'manifest.json');
  fs.writeFileSync(manifest, JSON.stringify({
    app: { key: app.appKey, version: app.appVersion, locale: app.locale },
    zips: 'packs/',
    packs: [{ name: 'site', folder: 'app', prefix: PREFIX, priority: 9 }],
  }));
  const tree = path.join(dir, 'tree');
  execFileSync(ferritTool, ['publish', '--key', key, '--manifest', manifest, site, tree], { stdio: 'pipe' });
  return tree;
}

// Serves `tree` on 127.0.0.1; stop() closes the server and its connections, start() listens again
// on the same port. Resolves with {base, hits, stop, start}.
async function serveTree(tree) {
  const hits = [];
  const server = http.createServer((req, res) => {
    hits.push(req.url);
    const file = path.join(tree, decodeURIComponent(req.url.split('?')[0]));
    if (!file.startsWith(tree) || !fs.existsSync(file) || !fs.statSync(file).isFile()) {
      res.writeHead(404);
      res.end();
      return;
    }
    res.writeHead(200, { 'content-type': 'application/octet-stream' });
    fs.createReadStream(file).pipe(res);
  });
  let port = 0;
  const start = () => new Promise((resolve) => server.listen(port, '127.0.0.1', () => {
    port = server.address().port;
    resolve();
  }));
  const stop = () => new Promise((resolve) => {
    server.close(() => resolve());
    server.closeAllConnections();
  });
  await start();
  return { base: `http://127.0.0.1:${port}/`, hits, start, stop };
}

// Resolves with the first value of `event` on `emitter` for which `predicate` holds; cancel()
// stops waiting when the value was found another way.
function nextEvent(emitter, event, predicate = () => true) {
  let cancel;
  const promise = new Promise((resolve, reject) => {
    const timer = setTimeout(() => {
      emitter.off(event, listener);
      reject(new Error(`no "${event}" event within ${kDeadlineMs} ms`));
    }, kDeadlineMs);
    function listener(value) {
      if (!predicate(value)) return;
      cancel();
      resolve(value);
    }
    cancel = () => {
      clearTimeout(timer);
      emitter.off(event, listener);
    };
    emitter.on(event, listener);
  });
  promise.cancel = cancel;
  return promise;
}

// How long a child process may run before it counts as hung and is killed.
const kHangMs = 20000;

// Runs node with `args` (in `cwd`, with `env`, when given) and resolves with its exit code or signal and what
// it wrote; a child that hangs is killed after `hangMs` (kHangMs by default), which its signal
// then tells.
function runNode(args, { cwd, env, hangMs = kHangMs } = {}) {
  return new Promise((resolve) => {
    const child = spawn(process.execPath, args, { cwd, env, stdio: ['ignore', 'pipe', 'pipe'] });
    let out = '';
    let err = '';
    child.stdout.on('data', (chunk) => { out += chunk; });
    child.stderr.on('data', (chunk) => { err += chunk; });
    const guard = setTimeout(() => child.kill('SIGKILL'), hangMs);
    child.on('close', (code, signal) => {
      clearTimeout(guard);
      resolve({ code, signal, out, err });
    });
  });
}

module.exports = { APP, PREFIX, publish, serveTree, nextEvent, publisherPublic, ferritTool, kDeadlineMs, runNode };
