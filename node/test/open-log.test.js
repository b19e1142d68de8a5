'use strict';
// Where the library's log goes: stderr while nobody listens to "log", the listeners while somebody
// does (and not stderr), stderr again once the last listener is removed; the level set at run time
// holds for both. A host process of its own, whose stderr the test reads.
const test = require('node:test');
const assert = require('node:assert/strict');
const path = require('path');

const { tempRoot } = require('./helpers');
const { APP, PREFIX, publish, serveTree, publisherPublic, runNode } = require('./openTree');

// At this level the library logs each request it answers, with its URL.
const kLevelSteps = 4;
const kLevelSevere = 1;
const packagePath = path.join(__dirname, '..');

const script = `
const fs = require('fs');
const ferrit = require(${JSON.stringify(packagePath)});
(async () => {
  const options = JSON.parse(process.argv[1]);
  const cache = await ferrit.open({ ...options, publicKey: fs.readFileSync(options.publicKey) });
  await cache.update();
  const url = (phase) => ${JSON.stringify(PREFIX)} + phase + '.html';
  const heard = [];
  const listener = (entry) => heard.push(entry);
  await cache.get(url('unheard'));
  cache.on('log', listener);
  await cache.get(url('heard'));
  cache.off('log', listener);
  await cache.get(url('unheard-again'));
  const levelBefore = cache.logLevel;
  cache.logLevel = ${kLevelSevere};
  cache.on('log', listener);
  await cache.get(url('below-the-level'));
  cache.off('log', listener);
  await cache.get(url('below-the-level-on-stderr'));
  const levelAfter = cache.logLevel;
  await cache.close();
  console.log(JSON.stringify({ levelBefore, levelAfter, heard }));
})();
`;

test('OpenLogTest.LogGoesToListenersOnlyWhileThereAreAny', async (t) => {
  const dir = tempRoot(t);
  const server = await serveTree(publish(dir, { 'index.html': '<p>log</p>' }));
  t.after(() => server.stop());
  const options = { root: path.join(dir, 'root'), ...APP, publicKey: publisherPublic, server: server.base, logLevel: kLevelSteps };
  const child = await runNode(['-e', script, JSON.stringify(options)]);
  assert.equal(child.code, 0, child.err);
  const result = JSON.parse(child.out.trim().split('\n').pop());
  const onStderr = (phase) => child.err.split('\n').some((line) => line.includes(`${PREFIX}${phase}.html"`));
  const heard = (phase) => result.heard.some((entry) => JSON.stringify(entry).includes(`${PREFIX}${phase}.html"`));

  assert.ok(onStderr("unheard"), `stderr while nobody listens: ${child.err}`);
  assert.ok(!heard('unheard'));
  assert.ok(heard('heard'), 'the listener hears the entry');
  assert.ok(!onStderr('heard'), 'and stderr does not');
  const entry = result.heard.find((e) => JSON.stringify(e).includes(`${PREFIX}heard.html"`));
  assert.ok(entry.level > kLevelSevere && entry.level <= kLevelSteps, JSON.stringify(entry));
  assert.equal(typeof entry.tag, 'string');
  assert.equal(typeof entry.event, 'string');
  assert.ok(onStderr('unheard-again'), 'stderr again once the last listener is gone');
  assert.ok(!heard('unheard-again'));
  assert.equal(result.levelBefore, kLevelSteps);
  assert.equal(result.levelAfter, kLevelSevere);
  assert.ok(!heard('below-the-level') && !onStderr('below-the-level') && !onStderr('below-the-level-on-stderr'),
    'entries below the level are written nowhere');
});
