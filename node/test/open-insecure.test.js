'use strict';
// insecureNoSignatureCheck through open(): without a publicKey, a tree signed by a key nobody
// gave the cache installs and serves. A process of its own: the key (or its absence) is the
// process's.
const test = require('node:test');
const assert = require('node:assert/strict');
const { execFileSync } = require('child_process');
const path = require('path');

const { ferrit, tempRoot } = require('./helpers');
const { APP, PREFIX, publish, serveTree, ferritTool } = require('./openTree');

const PAGE = '<!doctype html><p>anybody signed this</p>\n';

test('OpenInsecureTest.WithoutAKeyATreeOfAnyKeyServes', async (t) => {
  const dir = tempRoot(t);
  const otherPrivate = path.join(dir, 'other.pem');
  execFileSync(ferritTool, ['keygen', otherPrivate, path.join(dir, 'other.pub.pem')]);
  const server = await serveTree(publish(dir, { 'index.html': PAGE }, APP, otherPrivate));
  t.after(() => server.stop());
  await assert.rejects(ferrit.open({ root: path.join(dir, 'root'), ...APP, server: server.base, insecureNoSignatureCheck: 'yes' }),
    { code: 'FERRIT_BAD_OPTION' });
  const cache = await ferrit.open({
    root: path.join(dir, 'root'), ...APP, server: server.base, insecureNoSignatureCheck: true, logLevel: 2,
  });
  t.after(() => cache.close());
  const { packs } = await cache.update();
  assert.deepEqual(packs, [{ name: 'site' }]);
  const answer = await cache.get(`${PREFIX}index.html`);
  assert.equal(answer.hit, true, JSON.stringify(answer));
  assert.equal(answer.body.toString(), PAGE);
});
