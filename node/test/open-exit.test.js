'use strict';
// close() leaves nothing that keeps the process alive: a host that opens, listens to every event,
// installs, serves and closes ends by itself, without process.exit. And a host opened without a
// server is told so in words, and ends the same way.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');

const { tempRoot } = require('./helpers');
const { APP, PREFIX, publish, serveTree, publisherPublic, runNode } = require('./openTree');

const PAGE = '<!doctype html><p>exit</p>\n';
// Only a process that never ends reaches it.
const packagePath = path.join(__dirname, '..');

// The host's script: no process.exit anywhere; prints one JSON line before it closes.
function hostScript(options, url) {
  return `
const fs = require('fs');
const ferrit = require(${JSON.stringify(packagePath)});
(async () => {
  const options = ${JSON.stringify(options)};
  const cache = await ferrit.open({ ...options, publicKey: fs.readFileSync(options.publicKey) });
  for (const event of ['log', 'record', 'state', 'packUpdated', 'queueFinished']) cache.on(event, () => {});
  const update = await cache.update().then((r) => r.packs.map((p) => [p.name, p.error?.message]),
    (error) => ({ code: error.code, message: error.message }));
  const answer = await cache.get(${JSON.stringify(url)});
  const status = await cache.status();
  await cache.close();
  console.log(JSON.stringify({ update, hit: answer.hit, problems: status.problems }));
})();
`;
}

function run(script) {
  return runNode(['-e', script]);
}

test('OpenExitTest.CloseLetsTheProcessExit', async (t) => {
  const dir = tempRoot(t);
  const server = await serveTree(publish(dir, { 'index.html': PAGE }));
  t.after(() => server.stop());
  const options = { root: path.join(dir, 'root'), ...APP, publicKey: publisherPublic, server: server.base };
  const child = await run(hostScript(options, `${PREFIX}index.html`));
  assert.equal(child.signal, null, `the process did not end by itself: ${child.err}`);
  assert.equal(child.code, 0, child.err);
  const result = JSON.parse(child.out.trim().split('\n').pop());
  assert.deepEqual(result.update, [['site', null]]);
  assert.equal(result.hit, true);
  assert.ok(fs.existsSync(path.join(dir, 'root')));
});

test('OpenExitTest.WithoutServerTheStateSaysSoAndTheProcessExits', async (t) => {
  const dir = tempRoot(t);
  const options = { root: path.join(dir, 'root'), ...APP, publicKey: publisherPublic };
  const child = await run(hostScript(options, `${PREFIX}index.html`));
  assert.equal(child.signal, null, `the process did not end by itself: ${child.err}`);
  assert.equal(child.code, 0, child.err);
  const result = JSON.parse(child.out.trim().split('\n').pop());
  assert.equal(result.hit, false);
  assert.match(result.update.message, /could not be fetched \(no server is set\)/);
  assert.ok(result.problems.some((p) => /^no server is set: the library requests nothing/.test(p)), JSON.stringify(result.problems));
});
