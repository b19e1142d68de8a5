'use strict';
// The README's first example, as written: its first ```js block saved as host.js in an empty
// folder with the publisher's public key beside it and the package as `ferritcore`, run as
// `node host.js SERVER URL` against a tree published for app "demo" 1.0 in the locale Intl gives,
// once with the server up (it installs and serves) and once with it stopped (it serves what it
// installed).
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');

const { tempRoot } = require('./helpers');
const { publish, serveTree, publisherPublic, PREFIX, runNode } = require('./openTree');

const PAGE = '<!doctype html>\n<title>demo</title>\n<p>served from the pack</p>\n';
const readme = path.join(__dirname, '..', 'README.md');

function firstJsBlock(text) {
  const match = /^```js[ \t]*\n([\s\S]*?)^```/m.exec(text);
  assert.ok(match, 'the README has a ```js block');
  return match[1];
}

function runExample(folder, server, url) {
  return runNode(['host.js', server, url], { cwd: folder });
}

test('OpenReadmeTest.FirstExampleRunsAsWritten', async (t) => {
  const dir = tempRoot(t);
  const locale = Intl.DateTimeFormat().resolvedOptions().locale;
  const server = await serveTree(publish(dir, { 'index.html': PAGE }, { appKey: 'demo', appVersion: '1.0', locale }));
  t.after(() => server.stop());
  const folder = path.join(dir, 'app');
  fs.mkdirSync(path.join(folder, 'node_modules'), { recursive: true });
  fs.symlinkSync(path.join(__dirname, '..'), path.join(folder, 'node_modules', 'ferritcore'), 'dir');
  fs.writeFileSync(path.join(folder, 'host.js'), firstJsBlock(fs.readFileSync(readme, 'utf8')));
  fs.copyFileSync(publisherPublic, path.join(folder, 'publisher.pub.pem'));
  const url = `${PREFIX}index.html`;
  const served = `${url}: ${Buffer.byteLength(PAGE)} bytes from the pack`;

  const online = await runExample(folder, server.base, url);
  assert.equal(online.signal, null, online.err);
  assert.equal(online.code, 0, `${online.out}\n${online.err}`);
  const lines = online.out.split('\n');
  assert.ok(lines.includes(served), online.out);
  assert.ok(lines.includes('pack site: installed'), online.out);
  assert.ok(fs.existsSync(path.join(folder, 'ferrit-cache')));

  await server.stop();
  const offline = await runExample(folder, server.base, url);
  assert.equal(offline.code, 0, `${offline.out}\n${offline.err}`);
  assert.match(offline.out, /^no update: .*ECONNREFUSED/m);
  assert.ok(offline.out.split('\n').includes(served), offline.out);

  const missing = await runExample(folder, server.base, `${PREFIX}missing.html`);
  assert.equal(missing.code, 1, missing.out);
  assert.match(missing.out, new RegExp(`^${PREFIX.replace(/[.]/g, '\\.')}missing\\.html: not served \\(\\d+ .+\\)$`, 'm'));
});
