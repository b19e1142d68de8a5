'use strict';
// A host opened on a channel: it reads the configuration that `ferrit publish --channel NAME`
// wrote below the server's "channels/NAME/", with the packs shared by every channel. A version
// promoted from another channel (`ferrit promote --from`) reaches it with its documents signed
// again and no zip copied.
const test = require('node:test');
const assert = require('node:assert/strict');
const { execFileSync } = require('child_process');
const fs = require('fs');
const path = require('path');

const { ferrit, tempRoot } = require('./helpers');
const { APP, PREFIX, serveTree, publisherPublic, ferritTool } = require('./openTree');

const privateKey = path.join(path.dirname(publisherPublic), 'sample-ed25519.pem');

// Every file below `folder`, relative to it, sorted.
function filesBelow(folder) {
  if (!fs.existsSync(folder)) return [];
  return fs.readdirSync(folder, { recursive: true })
    .filter((name) => fs.statSync(path.join(folder, name)).isFile())
    .sort();
}

test('ChannelTest', async (t) => {
  const dir = tempRoot(t);
  const site = path.join(dir, 'site');
  const tree = path.join(dir, 'tree');
  const manifest = path.join(dir, 'manifest.json');
  fs.writeFileSync(manifest, JSON.stringify({
    app: { key: APP.appKey, version: APP.appVersion, locale: APP.locale },
    zips: 'packs/',
    packs: [{ name: 'site', folder: 'app', prefix: PREFIX, priority: 9 }],
  }));
  const writeSite = (text) => {
    fs.mkdirSync(path.join(site, 'app'), { recursive: true });
    fs.writeFileSync(path.join(site, 'app', 'index.html'), text);
  };
  const tool = (...args) => execFileSync(ferritTool, args, { encoding: 'utf8' });
  writeSite('stable one\n');
  tool('publish', '--key', privateKey, '--manifest', manifest, '--channel', 'stable', site, tree);
  writeSite('beta two\n');
  tool('publish', '--key', privateKey, '--manifest', manifest, '--channel', 'beta', site, tree);
  const server = await serveTree(tree);
  t.after(() => server.stop());

  const cache = await ferrit.open({
    root: path.join(dir, 'root'), ...APP, publicKey: fs.readFileSync(publisherPublic),
    server: server.base, channel: 'stable',
  });
  t.after(() => cache.close());
  const page = async () => {
    const answer = await cache.get(`${PREFIX}index.html`);
    return answer.hit ? answer.body.toString() : `miss: ${answer.reason}`;
  };

  await t.test('HostReadsItsChannelsConfiguration', async () => {
    await cache.update();
    assert.equal(await page(), 'stable one\n');
    assert.ok(server.hits.some((hit) => hit.startsWith('/channels/stable/fconfig/')), server.hits.join('\n'));
    assert.ok(!server.hits.some((hit) => hit.startsWith('/fconfig/') || hit.startsWith('/channels/beta/')));
  });

  await t.test('PromotionFromAnotherChannelCopiesNoZipAndReachesTheHost', async () => {
    const zipsBefore = filesBelow(path.join(tree, 'packs'));
    const out = JSON.parse(tool('promote', '--key', privateKey, '--manifest', manifest,
      '--channel', 'stable', '--from', 'beta', '--json', 'site', tree));
    assert.deepEqual(out.after, { released: 2 });
    assert.deepEqual(filesBelow(path.join(tree, 'packs')), zipsBefore, 'no zip written');
    assert.ok(out.written.every((file) => file.startsWith('channels/stable/')), out.written.join('\n'));
    assert.ok(out.written.includes('channels/stable/packconfig/site/2'), 'the version\'s own document signed again');
    assert.ok(filesBelow(tree).every((file) => !/^channels\/.*\.zip$/.test(file)), 'no zip below a channel');
    server.hits.length = 0;
    await cache.update();
    assert.equal(await page(), 'beta two\n');
    assert.ok(server.hits.includes('/packs/site/i/2.zip') || server.hits.includes('/packs/site/2.zip'),
      server.hits.join('\n'));
  });
});
