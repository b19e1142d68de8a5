'use strict';
// Signatures are checked by default: `ferrit publish` signs a small site twice, once with the
// sample publisher's key and once with a key of somebody else's made by `ferrit keygen`; a local
// server serves one tree or the other; each host runs in a process of its own (the proxy is set
// once per process), and the library's log is read from its stderr.
const test = require('node:test');
const assert = require('node:assert/strict');
const { execFile, execFileSync } = require('child_process');
const fs = require('fs');
const path = require('path');

const { tempRoot, startServer } = require('./helpers');

const addon = process.env.FERRITCORE_ADDON || path.join(__dirname, '..', '..', 'build', 'node', 'ferritcore.node');
// The publisher's tools of the same build as the addon.
const ferritTool = process.env.FERRIT_TOOL || path.join(path.dirname(addon), '..', 'tools', 'ferrit');
const sampleKeys = path.join(__dirname, '..', '..', 'tools', 'sample', 'keys');
const publisherPrivate = path.join(sampleKeys, 'sample-ed25519.pem');
const publisherPublic = path.join(sampleKeys, 'sample-ed25519.pub.pem');

// What the host hears, in the library's log, when a signature is not the publisher's.
const kRejected = 'signature does not verify';
const APP = { appKey: 'sig', appVersion: '1.0', locale: 'en' };
const PREFIX = 'https://sig.example.com/app/';
const PAGE = '<!doctype html><p>signed by the publisher</p>\n';

// Runs one host process; resolves with {result, stderr}.
function runHost(options) {
  return new Promise((resolve, reject) => {
    execFile(process.execPath, [path.join(__dirname, 'signatureHost.js'), JSON.stringify({ ...APP, url: PREFIX + 'index.html', ...options })],
      { encoding: 'utf8', timeout: 120000, env: { ...process.env, FERRIT_LOG_LEVEL: '2' } },
      (error, stdout, stderr) => {
        if (error) {
          reject(new Error(`host process failed: ${error.message}\n${stderr}`));
          return;
        }
        resolve({ result: JSON.parse(stdout.trim().split('\n').pop()), stderr });
      });
  });
}

test('SignatureTest', async (t) => {
  const dir = tempRoot(t);
  const site = path.join(dir, 'site');
  fs.mkdirSync(path.join(site, 'app'), { recursive: true });
  fs.writeFileSync(path.join(site, 'app', 'index.html'), PAGE);
  const manifest = path.join(dir, 'manifest.json');
  fs.writeFileSync(manifest, JSON.stringify({
    app: { key: APP.appKey, version: APP.appVersion, locale: APP.locale },
    zips: 'packs/',
    packs: [{ name: 'site', folder: 'app', prefix: PREFIX, priority: 9 }],
  }));
  const otherPrivate = path.join(dir, 'other.pem');
  const otherPublic = path.join(dir, 'other.pub.pem');
  execFileSync(ferritTool, ['keygen', otherPrivate, otherPublic]);
  const trees = { publisher: path.join(dir, 'tree-publisher'), other: path.join(dir, 'tree-other') };
  execFileSync(ferritTool, ['publish', '--key', publisherPrivate, '--manifest', manifest, site, trees.publisher]);
  execFileSync(ferritTool, ['publish', '--key', otherPrivate, '--manifest', manifest, site, trees.other]);

  // The server answers from whichever tree the step serves, as a static server does.
  let served = trees.publisher;
  const { server, base } = await startServer((pathname) => {
    const file = path.join(served, decodeURIComponent(pathname));
    if (!file.startsWith(served) || !fs.existsSync(file) || !fs.statSync(file).isFile()) return undefined;
    return { body: fs.readFileSync(file) };
  });
  t.after(() => server.close());
  const key = (form, file = publisherPublic) => ({ form, file });
  let installedRoot;

  await t.test('TreeSignedByAnotherKeyServesNothing', async () => {
    served = trees.other;
    const root = path.join(dir, 'root-other');
    const { result, stderr } = await runHost({ root, server: base, key: key('pem') });
    assert.equal(result.configVersion, undefined, 'the configuration signed by another key is not taken');
    assert.deepEqual(result.installs, []);
    assert.equal(result.served, false);
    assert.ok(stderr.includes(kRejected), stderr);
  });

  await t.test('RightKeyServes', async () => {
    served = trees.publisher;
    installedRoot = path.join(dir, 'root-publisher');
    const { result, stderr } = await runHost({ root: installedRoot, server: base, key: key('pem') });
    assert.ok(result.configVersion, 'the configuration was taken');
    assert.deepEqual(result.installs.map((r) => [r.name, r.error]), [['site', undefined]]);
    assert.equal(result.served, true, JSON.stringify(result));
    assert.equal(result.body, PAGE);
    assert.ok(!stderr.includes(kRejected), stderr);
  });

  await t.test('InstalledPackUnderAnotherKeyServesNothing', async () => {
    // The same installed pack, opened offline by a host that trusts another key: its signed list
    // does not verify, so none of its files is served.
    const root = path.join(dir, 'root-reopened-other');
    fs.cpSync(installedRoot, root, { recursive: true });
    const { result, stderr } = await runHost({ root, key: key('pem', otherPublic) });
    assert.equal(result.served, false);
    assert.match(result.error.message, /app-res\.hvc.*verify failed/);
    assert.ok(stderr.includes(kRejected), stderr);
  });

  await t.test('EveryKeyFormReadsThePublisherKey', async () => {
    for (const form of ['pemBuffer', 'raw', 'rawBase64', 'keyObject']) {
      const root = path.join(dir, `root-${form}`);
      fs.cpSync(installedRoot, root, { recursive: true });
      const { result, stderr } = await runHost({ root, key: key(form) });
      assert.equal(result.served, true, `${form}: ${JSON.stringify(result)}`);
      assert.equal(result.body, PAGE);
      assert.ok(!stderr.includes(kRejected), `${form}: ${stderr}`);
    }
  });

  await t.test('InsecureFlagOpensWithoutChecks', async () => {
    served = trees.other;
    const root = path.join(dir, 'root-insecure');
    const { result, stderr } = await runHost({ root, server: base, insecure: true });
    assert.ok(result.configVersion);
    assert.equal(result.served, true, JSON.stringify(result));
    assert.equal(result.body, PAGE);
    assert.ok(!stderr.includes(kRejected), stderr);
    assert.match(stderr, /insecureNoSignatureCheck/);
  });
});
