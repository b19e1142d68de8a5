'use strict';
// A host written only with open() hears every step of a pack's life through the cache's events:
// the first configuration and the start of updating ("state"), the install ("packUpdated",
// "queueFinished", the library's "log" entries and its "record"s), serving with the server
// stopped, and an increment published into the same tree.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');

const { ferrit, tempRoot } = require('./helpers');
const { APP, PREFIX, publish, serveTree, publisherPublic, kDeadlineMs } = require('./openTree');

const PAGE_V1 = '<!doctype html><p>first</p>\n';
const PAGE_V2 = '<!doctype html><p>second</p>\n';
const STYLE = 'body { color: teal }\n';
// The log level at which the library tells each step of an install.
const kLevelSteps = 3;

// Keeps every event of the cache in order; until() answers the first recorded or later value of
// an event that satisfies the predicate.
function recorder(cache, events) {
  const heard = [];
  const waiters = [];
  for (const event of events) {
    cache.on(event, (value) => {
      heard.push({ event, value });
      for (const waiter of waiters.slice()) {
        if (waiter.event === event && waiter.predicate(value)) waiter.settle(value);
      }
    });
  }
  function until(event, predicate = () => true) {
    const found = heard.find((h) => h.event === event && predicate(h.value));
    if (found) return Promise.resolve(found.value);
    return new Promise((resolve, reject) => {
      const waiter = { event, predicate };
      const timer = setTimeout(() => {
        waiters.splice(waiters.indexOf(waiter), 1);
        reject(new Error(`no "${event}" event as expected within ${kDeadlineMs} ms; heard ` +
          JSON.stringify(heard.filter((h) => h.event !== 'log').slice(-10))));
      }, kDeadlineMs);
      waiter.settle = (value) => {
        clearTimeout(timer);
        waiters.splice(waiters.indexOf(waiter), 1);
        resolve(value);
      };
      waiters.push(waiter);
    });
  }
  const values = (event) => heard.filter((h) => h.event === event).map((h) => h.value);
  return { heard, until, values };
}

test('EventsTest.InstallOfflineAndIncrementAreHeard', async (t) => {
  const dir = tempRoot(t);
  const tree = publish(dir, { 'index.html': PAGE_V1, 'style.css': STYLE });
  const server = await serveTree(tree);
  t.after(() => server.stop());

  const cache = await ferrit.open({
    root: path.join(dir, 'root'), ...APP, publicKey: fs.readFileSync(publisherPublic), server: server.base,
    autoUpdate: false, logLevel: kLevelSteps,
  });
  t.after(() => cache.close());
  const seen = recorder(cache, ['state', 'packUpdated', 'queueFinished', 'log', 'record']);

  await t.test('FirstConfigurationAndStartOfUpdatingAreStates', async () => {
    // open() resolves once setup has run; the first configuration may come before or after.
    if ((await cache.status()).state !== 'configured') {
      await seen.until('state', (s) => s.state === 'configured');
    }
    cache.startUpdate();
    const updating = await seen.until('state', (s) => s.state === 'updating');
    assert.equal(updating.storage, 'writable');
    assert.deepEqual(updating.problems, []);
    assert.deepEqual(updating.packs, { site: { configured: 1, installed: 0 } });
  });

  await t.test('InstallIsHeard', async () => {
    const result = await cache.update();
    assert.deepEqual(result.packs, [{ name: 'site' }]);
    assert.match(result.version, /^\d+$/);
    assert.equal(await seen.until('packUpdated', (name) => name === 'site'), 'site');
    assert.ok((await seen.until('queueFinished')) >= 1);
    const record = await seen.until('record', (r) => r.name === 'Ferrit.AppUpdate' && r.dimensions.appName === 'site');
    assert.equal(record.dimensions.newSeq, '1');
    assert.equal(typeof record.measures.fileSize, 'number');
    const step = await seen.until('log', (e) => e.tag === 'Ferrit/UpdatePack' && e.name === 'site');
    assert.equal(step.level, kLevelSteps);
    assert.deepEqual((await cache.status()).packs, { site: { configured: 1, installed: 1 } });
    const answer = await cache.get(`${PREFIX}index.html`);
    assert.equal(answer.hit, true, JSON.stringify(answer));
    assert.equal(answer.body.toString(), PAGE_V1);
    assert.match(answer.headers['Content-Type'], /^text\/html/);
  });

  await t.test('OfflineServesAndTheFailureIsInWords', async () => {
    await server.stop();
    const answer = await cache.get(`${PREFIX}index.html`);
    assert.equal(answer.hit, true, JSON.stringify(answer));
    assert.equal(answer.body.toString(), PAGE_V1);
    const synchronous = cache.getSync(`${PREFIX}style.css`);
    assert.equal(synchronous.hit, true);
    assert.equal(synchronous.body.toString(), STYLE);
    await assert.rejects(cache.update(), (error) => error instanceof ferrit.FerritError &&
      typeof error.code === 'number' && /could not be fetched/.test(error.message) && /ECONNREFUSED/.test(error.reason));
    const failed = await seen.until('log', (e) => JSON.stringify(e).includes('ECONNREFUSED'));
    assert.ok(failed.level <= kLevelSteps, JSON.stringify(failed));
  });

  await t.test('IncrementIsHeard', async () => {
    const updatesBefore = seen.values('packUpdated').length;
    const versionBefore = (await cache.status()).version;
    publish(dir, { 'index.html': PAGE_V2 });
    await server.start();
    const result = await cache.update();
    assert.deepEqual(result.packs, [{ name: 'site' }]);
    assert.notEqual(result.version, versionBefore);
    await seen.until('packUpdated', () => seen.values('packUpdated').length > updatesBefore);
    assert.ok(server.hits.includes('/packs/site/i/2.zip'), JSON.stringify(server.hits));
    const increment = await seen.until('record', (r) => r.name === 'Ferrit.AppUpdate' && r.dimensions.newSeq === '2');
    assert.equal(increment.dimensions.incr, 'true');
    assert.equal((await cache.get(`${PREFIX}index.html`)).body.toString(), PAGE_V2);
    assert.equal((await cache.get(`${PREFIX}style.css`)).body.toString(), STYLE);
    const status = await cache.status();
    assert.equal(status.version, result.version);
    assert.deepEqual(status.packs, { site: { configured: 2, installed: 2 } });
  });

  await t.test('AfterCloseNothingIsHeard', async () => {
    const count = seen.heard.length;
    await cache.close();
    await assert.rejects(cache.get(`${PREFIX}index.html`), { code: 'FERRIT_CLOSED' });
    assert.equal(seen.heard.length, count);
  });
});
