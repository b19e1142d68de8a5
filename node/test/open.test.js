'use strict';
// open() as a host meets it: options refused with the option named, the publisher's key refusals,
// a cache that answers as soon as open() resolves, one cache per process, and re-attaching after
// close() (here with a locale the tree is not published for, which the state says in words).
const test = require('node:test');
const assert = require('node:assert/strict');
const crypto = require('crypto');
const fs = require('fs');
const path = require('path');

const { ferrit, tempRoot } = require('./helpers');
const { APP, PREFIX, publish, serveTree, publisherPublic, nextEvent } = require('./openTree');

const PAGE = '<!doctype html><p>open</p>\n';

function refusedWith(code, words) {
  return (error) => {
    assert.ok(error instanceof ferrit.FerritError, `not a FerritError: ${error}`);
    assert.ok(error instanceof Error);
    assert.equal(error.code, code, error.message);
    assert.match(error.message, words);
    assert.equal(typeof error.reason, 'string');
    return true;
  };
}

test('OpenTest', async (t) => {
  const dir = tempRoot(t);
  const root = path.join(dir, 'root');
  const tree = publish(dir, { 'index.html': PAGE });
  const server = await serveTree(tree);
  t.after(() => server.stop());
  const publicKey = fs.readFileSync(publisherPublic);
  const good = { root, ...APP, publicKey, server: server.base };

  await t.test('BadOptionsRejectWithTheOptionNamed', async () => {
    const cases = [
      [undefined, /option "options" must be an object/],
      [{ ...good, root: undefined }, /option "root" must be a non-empty string; it was nothing/],
      [{ ...good, appKey: 7 }, /option "appKey" must be a non-empty string; it was number 7/],
      [{ ...good, appVersion: '' }, /option "appVersion"/],
      [{ ...good, sever: 'http://x/' }, /option "sever" is not an option of open\(\)/],
      [{ ...good, server: 'ftp://127.0.0.1/' }, /option "server" must be an http or https address/],
      [{ ...good, server: 'not an address' }, /option "server" must be an absolute http or https address/],
      [{ ...good, network: 'wifi' }, /option "network" must be one of 'none', 'unrestricted', 'slow-mobile', 'fast-mobile'/],
      [{ ...good, env: 'production' }, /option "env" must be one of 'debug', 'daily', 'release'/],
      [{ ...good, fetch: 'fetch' }, /option "fetch" must be a function/],
      [{ ...good, updateInterval: -5 }, /option "updateInterval" must be a number of milliseconds/],
      [{ ...good, autoUpdate: 'yes' }, /option "autoUpdate" must be true or false/],
      [{ ...good, logLevel: 9 }, /option "logLevel" must be an integer from 1/],
      [{ ...good, locale: '' }, /option "locale"/],
      [{ ...good, channel: '../beta' }, /option "channel" must be a plain name/],
      [{ ...good, channel: '.beta' }, /option "channel" must be a plain name/],
      [{ ...good, channel: 'b\u00eata' }, /option "channel" must be a plain name/],
      [{ ...good, channel: 'beta\n' }, /option "channel" must be a plain name/],
      [{ ...good, channel: '' }, /option "channel" must be a non-empty string when given/],
      [{ ...good, rawFiles: path.join(dir, 'no-such-folder') }, /option "rawFiles" must be an existing folder/],
    ];
    for (const [options, words] of cases) {
      await assert.rejects(ferrit.open(options), refusedWith('FERRIT_BAD_OPTION', words), String(words));
    }
  });

  await t.test('ChannelNamesAreWhatTheLibraryTakes', () => {
    // The library reads the default channel for a name it does not take; the package refuses
    // exactly those names and passes every other one on.
    const { isPlainChannel } = require('../lib/options');
    for (const name of ['beta', '-beta', '_beta', '1.0', 'a..b', 'B-2_x.y']) assert.ok(isPlainChannel(name), name);
    for (const name of ['', '.beta', '..', 'a/b', 'a b', 'b\u00eata', 'beta\n', '\u212a']) {
      assert.ok(!isPlainChannel(name), JSON.stringify(name));
    }
  });

  await t.test('KeyRefusalsKeepTheirCodes', async () => {
    await assert.rejects(ferrit.open({ ...good, publicKey: undefined }),
      refusedWith('FERRIT_NO_PUBLIC_KEY', /publicKey.*insecureNoSignatureCheck/s));
    await assert.rejects(ferrit.open({ ...good, publicKey: 'not a key' }),
      refusedWith('FERRIT_BAD_PUBLIC_KEY', /is not an Ed25519 public key: .+/));
    // Nothing opened: the refusals came before the root was made.
    assert.equal(fs.existsSync(root), false);
  });

  let cache;
  await t.test('ResolvesOnceSetUpAndInspectNeverRaces', async () => {
    cache = await ferrit.open(good);
    // The folders the library makes when it takes its root are there before anything else runs.
    assert.ok(fs.existsSync(path.join(root, 'packs')) && fs.existsSync(path.join(root, 'temp')));
    // Straight after open() the library is set up: the inspector is there, never "not available".
    const [info, status] = await Promise.all([cache.inspect('FerritDev.info'), cache.status()]);
    assert.equal(info.process, 'main');
    assert.ok(!(info.error ?? []).includes('NOT_SETUP'), JSON.stringify(info));
    assert.ok(['set up', 'configured', 'updating'].includes(status.state), JSON.stringify(status));
    assert.equal(status.storage, 'writable');
    assert.equal(fs.statSync(root).isDirectory(), true);
    await assert.rejects(cache.inspect('FerritDev.nothing'), (error) => error instanceof ferrit.FerritError && error.code === 9996);
  });

  await t.test('SecondOpenRejects', async () => {
    await assert.rejects(ferrit.open(good), refusedWith('FERRIT_ALREADY_OPEN', /already open at .*close\(\) it first/));
  });

  await t.test('AnswersAreHitsOrMissesInWords', async () => {
    const result = await cache.update();
    assert.deepEqual(result.packs, [{ name: 'site' }]);
    const hit = await cache.get(`${PREFIX}index.html`, { headers: { Accept: 'text/html' }, referrer: PREFIX });
    assert.deepEqual(Object.keys(hit), ['hit', 'url', 'status', 'headers', 'body', 'md5']);
    assert.equal(hit.status, 200);
    assert.ok(Buffer.isBuffer(hit.body));
    assert.equal(hit.body.toString(), PAGE);
    const miss = await cache.get('https://elsewhere.example.com/x.js');
    assert.deepEqual(Object.keys(miss), ['hit', 'url', 'is404', 'code', 'reason', 'error']);
    assert.equal(miss.hit, false);
    assert.equal(typeof miss.code, 'number');
    assert.ok(miss.code !== 0 && miss.reason.length > 0, JSON.stringify(miss));
    assert.ok(miss.error instanceof ferrit.FerritError);
    assert.equal(miss.error.code, miss.code);
    const missSync = cache.getSync('https://elsewhere.example.com/x.js');
    assert.equal(missSync.hit, false);
    assert.equal(missSync.code, miss.code);
    const one = await cache.update('site');
    assert.equal(one.name, 'site');
    assert.equal(one.error, undefined);
    const unknown = await cache.update('no-such-pack');
    assert.ok(unknown.error instanceof ferrit.FerritError, JSON.stringify(unknown));
    assert.throws(() => cache.setNetwork('wifi'), refusedWith('FERRIT_BAD_OPTION', /'unrestricted'/));
    assert.throws(() => cache.prefetch('x'), refusedWith('FERRIT_BAD_OPTION', /array of URLs/));
  });

  await t.test('AfterCloseAnotherRootRejectsAndTheSameRootReattaches', async () => {
    await cache.close();
    await cache.close();
    await assert.rejects(cache.status(), refusedWith('FERRIT_CLOSED', /closed/));
    await assert.rejects(ferrit.open({ ...good, root: path.join(dir, 'other') }),
      refusedWith('FERRIT_OTHER_ROOT', /one root per process/));
    const other = crypto.generateKeyPairSync('ed25519').publicKey;
    await assert.rejects(ferrit.open({ ...good, publicKey: other }), refusedWith('FERRIT_BAD_PUBLIC_KEY', /another publisher key/));
    // Again, for a locale the tree is not published for: nothing to take, and the state says why.
    cache = await ferrit.open({ ...good, locale: 'fr-FR', logLevel: 2 });
    const words = `no configuration is published for app key "${APP.appKey}", app version "${APP.appVersion}", ` +
      `locale "fr-FR" at ${server.base}fconfig/`;
    const named = (status) => status.problems.some((p) => p.startsWith(words));
    const stateEvent = nextEvent(cache, 'state', named);
    const logEvent = nextEvent(cache, 'log', (entry) => entry.event === 'configNotPublished');
    await assert.rejects(cache.update(), (error) => error instanceof ferrit.FerritError && /could not be fetched/.test(error.message));
    assert.ok(named(await stateEvent));
    const entry = await logEvent;
    assert.ok(entry.message.startsWith(words), entry.message);
    assert.match(entry.message, /the tree is published for another locale or app version\?$/);
    assert.equal(entry.locale, 'fr-FR');
    assert.ok(named(await cache.status()));
    assert.equal((await cache.get(`${PREFIX}index.html`)).hit, true, 'what is installed serves on');
    await cache.close();
  });
});
