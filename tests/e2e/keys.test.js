'use strict';
// The tree on a static server as a CDN would cache it, and a change of keys through it: nginx
// includes the cache rules that `ferrit publish` wrote beside the tree, and its answers carry
// them (configuration documents a minute, zips a year as immutable, a missing zip nothing); a
// host opened with key A follows `ferrit key rotate --next B`, installs the version B published,
// and after `ferrit key rotate --retire A` refuses a document that A signed, although it still
// opens with A, keeping what it has.
const test = require('node:test');
const assert = require('node:assert/strict');
const { execFileSync } = require('child_process');
const fs = require('fs');
const path = require('path');

const s = require('./support');
const ferrit = require('../../node');

const tool = (...args) => execFileSync(s.ferritTool, args, { encoding: 'utf8' });

async function head(url) {
  const response = await fetch(url);
  await response.arrayBuffer();
  return response;
}

test('cache headers from the rules beside the tree, and a change of keys on a live host', { timeout: 120000 }, async (t) => {
  const dir = s.scratch('keys');
  const siteRoot = path.join(dir, 'site');
  const tree = path.join(dir, 'tree');
  const manifest = path.join(dir, 'manifest.json');
  const key = (name) => path.join(dir, name);
  for (const name of ['a', 'b']) tool('keygen', key(`${name}.pem`), key(`${name}.pub.pem`));
  fs.mkdirSync(path.join(siteRoot, 'app'), { recursive: true });
  fs.writeFileSync(path.join(siteRoot, 'app', 'index.html'), '<html>one</html>');
  fs.writeFileSync(manifest, JSON.stringify({
    app: { key: 'keys', version: '1.0', locale: 'en' },
    zips: 'packs/',
    packs: [{ name: 'keys', folder: 'app', prefix: `${s.kAppOrigin}/app/`, priority: 9 }],
  }));
  const publish = (name) => tool('publish', '--key', key(`${name}.pem`), '--manifest', manifest, siteRoot, tree);
  assert.match(publish('a'), /keys 1 \(full\)/);
  assert.ok(fs.existsSync(`${tree}.nginx.conf`), 'the nginx rules lie beside the tree');
  assert.ok(!fs.readdirSync(tree).some((name) => name.includes('nginx')), 'and not in it');

  const port = await s.freePort();
  const base = `http://127.0.0.1:${port}/`;
  const nginx = new s.Nginx({ dir: path.join(dir, 'nginx'), tree, siteRoot, port });
  let cache = null;
  t.after(async () => {
    if (cache) await cache.close().catch(() => {});
    await nginx.stop();
    fs.rmSync(dir, { recursive: true, force: true });
  });
  await nginx.start();

  // What a CDN in front of nginx is told.
  const global = 'fconfig/keys/1.0/0~0/en~en';
  const config = await head(`${base}${global}`);
  assert.equal(config.status, 200);
  assert.equal(config.headers.get('cache-control'), 'public, max-age=60, must-revalidate');
  assert.ok(config.headers.get('etag'), 'a document can be revalidated');
  assert.equal((await head(`${base}packconfig/keys/1`)).headers.get('cache-control'),
    'public, max-age=60, must-revalidate');
  const zip = await head(`${base}packs/keys/1.zip`);
  assert.equal(zip.status, 200);
  assert.equal(zip.headers.get('cache-control'), 'public, max-age=31536000, immutable');
  const missing = await head(`${base}packs/keys/9.zip`);
  assert.equal(missing.status, 404);
  assert.equal(missing.headers.get('cache-control'), null, 'a missing zip is never cached as immutable');

  // A host built with key A.
  cache = await ferrit.open({
    root: path.join(dir, 'root'), appKey: 'keys', appVersion: '1.0', locale: 'en',
    publicKey: fs.readFileSync(key('a.pub.pem')), server: base,
  });
  const installed = async () => Number((await cache.inspect('FerritDev.fconfig')).packs?.keys?.installedSeq ?? 0);
  const info = () => cache.inspect('FerritDev.info');
  await cache.update();
  assert.equal(await installed(), 1);

  // A names B; B publishes a version whose list it signs; the host installs it.
  assert.match(tool('key', 'rotate', '--key', key('a.pem'), '--next', key('b.pub.pem'), tree), /names its successor/);
  await cache.update();
  const bId = execFileSync('bash', ['-c',
    `openssl pkey -pubin -in '${key('b.pub.pem')}' -outform DER | tail -c 32 | sha256sum | cut -c1-32`], { encoding: 'utf8' }).trim();
  assert.deepEqual((await info()).configuration.keys.trusted, [bId]);
  assert.match(publish('b'), /keys 2 \(full; a new base, signed by the new key\)/);
  await cache.update();
  assert.equal(await installed(), 2);

  // B retires A: a document that A signs is refused from then on; the host keeps what it has.
  tool('key', 'rotate', '--key', key('b.pem'), '--retire', key('a.pub.pem'), tree);
  await cache.update();
  const version = (await cache.status()).version;
  const retired = (await info()).configuration.keys.retired;
  assert.equal(retired.length, 1);
  const body = fs.readFileSync(path.join(tree, global), 'utf8').split('||')[0];
  const forged = JSON.parse(body);
  forged.v = String(Number(forged.v) + 10);
  forged.issued += 10;
  forged.packs = {};
  fs.writeFileSync(path.join(dir, 'forged.json'), JSON.stringify(forged));
  tool('config', 'sign', '--key', key('a.pem'), path.join(dir, 'forged.json'), path.join(tree, global));
  await cache.update().catch(() => {});
  assert.equal((await cache.status()).version, version);
  assert.equal(await installed(), 2);
  const served = await cache.get(`${s.kAppOrigin}/app/index.html`);
  assert.equal(served.hit, true, JSON.stringify(served));
  assert.equal(served.body.toString(), '<html>one</html>');
});
