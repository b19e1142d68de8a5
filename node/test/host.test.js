'use strict';
// A whole host in one process: the host object fetches the configuration from a local HTTP server,
// the raw-file folder holds a built-in pack, and the natives serve it; then the inspector.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');

const { ferrit, tempRoot, makeAssets, startServer, makeHost, waitFor, bytesOf, md5, signDocument } = require('./helpers');

const PREFIX = 'https://app.example.com/static/';
const SCRIPT = Buffer.from('console.log("from the pack");\n'.repeat(40));
const STYLE = Buffer.from('body { color: red; }\n');
const DOCUMENT = {
  v: '1732200000000',
  i: 4294967295,
  packs: { news: { s: 5, f: 80, p: ['https://news.example.com/'] } },
};

async function info() {
  try {
    return await ferrit.inspect('FerritDev.info');
  } catch {
    return undefined;  // not registered before setup has run
  }
}

test('HostTest.ServesAPackAndAnswersTheInspector', async (t) => {
  const root = tempRoot(t);
  const assets = makeAssets(path.join(root, 'rawfile'), {
    web: { seq: 3, prefix: PREFIX, files: { 'app.js': SCRIPT, 'css/site.css': STYLE } },
  });
  fs.mkdirSync(path.join(root, 'cache'));
  const signed = signDocument(DOCUMENT);
  const { server, base } = await startServer((pathname) =>
    pathname.startsWith('/fconfig/') ? { body: signed } : undefined);
  t.after(() => server.close());
  const host = makeHost({ httpBase: base, omitStatus: true });
  const other = makeHost({ httpBase: base });

  await t.test('SetEnvAsStringIsIgnored', () => {
    assert.equal(ferrit.setDefaultConfigNative({ configPrefixRelease: base, configUpdateInterval: 0 }), undefined);
    // "1" would switch to the daily endpoint; a string is not a number, so the release one stays.
    assert.equal(ferrit.setEnvNative('1'), undefined);
  });

  await t.test('SetProxyTwiceKeepsTheFirst', () => {
    assert.equal(ferrit.setProxyNative(host, path.join(root, 'cache')), false);
    assert.equal(ferrit.setProxyNative(host, path.join(root, 'cache'), assets), true);
    assert.equal(ferrit.setProxyNative(other, path.join(root, 'other'), ''), true);
  });

  await t.test('SetupFetchesTheConfigurationThroughTheHost', async () => {
    ferrit.setLocaleNative('en-US');
    ferrit.setNetworkStatusNative(1);
    ferrit.setupNative('app', '1.0', 1);
    await waitFor(async () => {
      const report = await info();
      return report && !(report.error || []).includes('NOT_UPDATE_CONFIG');
    });
    assert.equal(host.requests.length, 1);
    assert.ok(host.requests[0].request.url.startsWith(base + 'fconfig/app/1.0/'), host.requests[0].request.url);
    assert.equal(host.requests[0].request.header['f-refer'], 'ferrit_config');
    assert.equal(host.requests[0].request.timeout, 10);
    assert.equal(other.requests.length, 0);
    const fconfig = await ferrit.inspect('FerritDev.fconfig');
    assert.equal(fconfig.v, '1732200000000');
    ferrit.startUpdateNative();
    await waitFor(async () => !((await info()).error || []).includes('NOT_START_UPDATE'));
  });

  await t.test('GetResourceSyncServesThePackWithoutCopy', () => {
    const response = ferrit.getResourceSyncNative({ url: PREFIX + 'app.js', traceId: 'trace-7' });
    assert.equal(response.error, undefined);
    assert.ok(response.data instanceof ArrayBuffer);
    assert.deepEqual(bytesOf(response.data), SCRIPT);
    assert.equal(response.is404, false);
    assert.match(response.header['Content-Type'], /javascript/);
    assert.match(response.header['X-Ferrit-Info'], /web@3/);
    assert.equal(response.md5 === '' || response.md5 === md5(SCRIPT), true);
  });

  await t.test('GetResourceSyncWithEmptyDataHasNoBuffer', () => {
    const response = ferrit.getResourceSyncNative({ url: 'https://elsewhere.example.com/a.js' });
    assert.equal(response.data, undefined);
    assert.ok(response.error instanceof Error, 'made by the host\'s createError');
    assert.equal(response.error.code, 3001);
    assert.ok(host.errorsMade.includes(3001));
  });

  await t.test('GetResourceAsyncServesThePack', async () => {
    const response = await new Promise((resolve) =>
      ferrit.getResourceNative({ url: PREFIX + 'css/site.css', header: { Accept: 'text/css' } }, resolve));
    assert.equal(response.error, undefined);
    assert.deepEqual(bytesOf(response.data), STYLE);
  });

  await t.test('AccessApiTableAddressIsStable', () => {
    assert.equal(ferrit.getAccessAPINative(), ferrit.getAccessAPINative());
  });

  await t.test('SetEnabledFalseDisablesServing', async () => {
    assert.deepEqual(await ferrit.inspect('FerritDev.isEnabled'), { enabled: true });
    assert.deepEqual(await ferrit.inspect('FerritDev.setEnabled', { enabled: false }), {});
    assert.equal(ferrit.getResourceSyncNative({ url: PREFIX + 'app.js' }).error.code, 3003);
    assert.deepEqual(await ferrit.inspect('FerritDev.isEnabled'), { enabled: false });
    await ferrit.inspect('FerritDev.setEnabled', { enabled: true });
    assert.equal(ferrit.getResourceSyncNative({ url: PREFIX + 'app.js' }).error, undefined);
  });

  await t.test('UnknownPackListsFailWhileFileListsAreEmpty', async () => {
    await assert.rejects(ferrit.inspect('FerritDev.getURLList', { packName: 'none' }), (error) => {
      assert.equal(error.data.message, '未找到配置');
      return true;
    });
    assert.deepEqual(await ferrit.inspect('FerritDev.readDiskFileList', { packName: 'none' }), {});
    const urls = await ferrit.inspect('FerritDev.getURLList', { packName: 'web' });
    assert.deepEqual(urls.urls, [PREFIX + 'app.js', PREFIX + 'css/site.css']);
  });

  await t.test('InspectorReportsMatchesSettingsAndSizes', async () => {
    const match = await ferrit.inspect('FerritDev.getURLInfo', { url: PREFIX + 'app.js', referrer: '', accept: '' });
    assert.equal(match.error, undefined);
    assert.equal(match.parts[0].name.includes('web@3'), true, JSON.stringify(match));
    const settings = await ferrit.inspect('FerritDev.config');
    assert.equal(typeof settings, 'object');
    const size = await ferrit.inspect('FerritDev.size');
    assert.deepEqual(Object.keys(size), ['diskSize', 'ModuleCache', 'UniApp', 'Ferrit', 'SCache', 'ACache']);
    assert.equal(size.SCache.count, 1);
    assert.equal(typeof (await ferrit.inspect('FerritDev.indexes')).urlIndex, 'object');
    assert.equal(typeof (await ferrit.inspect('FerritDev.statisitcs')), 'object');
    assert.deepEqual(await ferrit.inspect('Ferrit.prefetch', { [PREFIX + 'app.js']: 1 }), {});
  });

  await t.test('UpdateCommandRunsThroughTheHost', async () => {
    const before = host.requests.length;
    assert.deepEqual(await ferrit.inspect('FerritDev.update'), {});
    assert.equal(host.requests.length, before + 1);
  });

  await t.test('PrefetchNativeCreditsThePackBehindTheUrl', async () => {
    assert.equal(ferrit.prefetchNative([PREFIX + 'app.js', 'https://nobody.example.com/x.js']), undefined);
    await waitFor(async () => {
      const statistics = await ferrit.inspect('FerritDev.statisitcs');
      return statistics.web && statistics.web.prefetchCount >= 1;
    });
  });

  await t.test('PreviewPackAsksThePlatformThroughTheHost', async () => {
    await assert.rejects(ferrit.inspect('FerritDev.previewPack', { packName: 'news', seq: 7 }),
      (error) => /rpc\/preview\/packConfig\/7\?v=\d+/.test(error.message));
  });

  await t.test('ModuleCacheMetaAnswersWithTheList', async () => {
    const meta = await ferrit.inspect('FerritDev.moduleCacheMeta');
    assert.ok(Array.isArray(meta.nodes));
    assert.equal(meta.count, meta.nodes.length);
  });

  await t.test('ClearEmptiesThePacks', async () => {
    assert.deepEqual(await ferrit.inspect('FerritDev.clear'), {});
    const fconfig = await ferrit.inspect('FerritDev.fconfig');
    assert.equal(fconfig.packs, undefined);
    assert.equal(ferrit.getResourceSyncNative({ url: PREFIX + 'app.js' }).error.code, 3001);
  });

  await t.test('LifecycleNativesAreQueued', () => {
    assert.equal(ferrit.clientDeactivedNative(), undefined);
    assert.equal(ferrit.clientActivedNative(), undefined);
    assert.equal(ferrit.registerAcceptNative('img', 'webp', 'image/webp'), undefined);
    assert.equal(ferrit.prefetchNative([PREFIX + 'app.js']), undefined);
    assert.equal(ferrit.installPreloadNative('web'), undefined);
  });
});
