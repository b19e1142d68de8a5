'use strict';
// The natives' side of the package's host API, reached through symbols on the addon's exports:
// whenReady, the inspect channel behind the lifecycle natives, the host object's optional methods
// (onPackUpdated, onQueueFinished, sendEvent, onStateChanged), wantRecords, logTo and logLevel.
//
// The proxy is set once per process and start-up happens once, so each scenario runs in a fresh
// process: this file runs itself with FERRIT_HOOKS_SCENARIO naming the scenario, which prints one
// JSON line with what it saw on stdout.
const assert = require('node:assert/strict');
const { execFile, execFileSync, spawnSync } = require('child_process');
const fs = require('fs');
const path = require('path');

const addonPath = path.resolve(
  process.env.FERRITCORE_ADDON || path.join(__dirname, '..', '..', 'build', 'node', 'ferritcore.node'));
// The publisher's tools of the same build as the addon.
const ferritTool = process.env.FERRIT_TOOL || path.join(path.dirname(addonPath), '..', 'tools', 'ferrit');
const sampleKeys = path.join(__dirname, '..', '..', 'tools', 'sample', 'keys');
const publisherPrivate = path.join(sampleKeys, 'sample-ed25519.pem');
const publisherPublic = path.join(sampleKeys, 'sample-ed25519.pub.pem');

// Environment 2 is "Release", whose prefixes setDefaultConfigNative sets.
const kEnvRelease = 2;
// Network status 1: unrestricted.
const kNetworkUnrestricted = 1;
// Bit 0 of setup's mode: the host calls startUpdateNative itself.
const kModeHostStartsUpdate = 1;
// The inspector's answer for a command that is not registered (yet).
const kDevToolNotAvailable = 9996;

const APP = { appKey: 'hooks', appVersion: '1.0', locale: 'en' };
const PREFIX = 'https://hooks.example.com/app/';
const LIB_PREFIX = 'https://lib.example.com/lib/';
const PAGE = '<!doctype html><p>hooks</p>\n';

// ---- The scenarios, each in a process of its own.

function symbols(native) {
  const get = (name) => native[Symbol.for(`ferritcore.${name}`)];
  return {
    inspectNative: get('inspect'),
    whenReady: get('whenReady'),
    wantRecords: get('wantRecords'),
    logTo: get('logTo'),
    logLevel: get('logLevel'),
  };
}

function inspect(native, command) {
  return new Promise((resolve) => {
    symbols(native).inspectNative(command, '{}', (success, text) => resolve({ success, data: JSON.parse(text) }));
  });
}

function whenReady(native) {
  return new Promise((resolve) => symbols(native).whenReady(resolve));
}

// A host object that answers "sendRequest" from the local server at `server`, and fails every
// other URL in transport.
function makeHost(native, server, methods = {}) {
  const http = require('http');
  return {
    publicKey: fs.readFileSync(publisherPublic, 'utf8'),
    sendRequest(request, id) {
      const answer = (response, error) => native.onSendRequestFinishedNative(id, response, error);
      if (!server || !request.url.startsWith(server)) {
        setImmediate(() => answer(undefined, { code: 7, message: 'no route to ' + request.url }));
        return;
      }
      http.get(request.url, { headers: request.header ?? {} }, (res) => {
        const chunks = [];
        res.on('data', (chunk) => chunks.push(chunk));
        res.on('end', () => {
          const header = {};
          for (const [name, value] of Object.entries(res.headers)) header[name] = String(value);
          let content = Buffer.concat(chunks);
          if (request.tempFilePath) {
            fs.writeFileSync(request.tempFilePath, content);
            content = undefined;
          }
          answer({ statusCode: res.statusCode, header, content });
        });
      }).on('error', (error) => answer(undefined, { code: 1, message: error.message }));
    },
    createError(code, message) {
      const error = new Error(message);
      error.code = code;
      return error;
    },
    ...methods,
  };
}

// Sets up against `server` (or none), in the order the package uses.
function start(native, host, root, { server, mode = kModeHostStartsUpdate } = {}) {
  native.setEnvNative(kEnvRelease);
  native.setLocaleNative(APP.locale);
  native.setNetworkStatusNative(kNetworkUnrestricted);
  if (server) native.setDefaultConfigNative({ configPrefixRelease: server, zipPrefixRelease: `${server}packs/` });
  if (native.setProxyNative(host, root, null) !== true) throw new Error('setProxyNative refused the host');
  native.setupNative(APP.appKey, APP.appVersion, mode);
}

const scenarios = {
  // inspect and whenReady right after setupNative, with nothing awaited in between.
  async ready(o) {
    const native = require(addonPath);
    const host = makeHost(native);
    const order = [];
    start(native, host, o.root);
    const infoNow = inspect(native, 'FerritDev.info').then((reply) => {
      order.push('info');
      return reply;
    });
    // What a miss says about start-up, at once and from within the callback (synchronous reads
    // do not wait for the queue).
    const missNow = native.getResourceSyncNative({ url: PREFIX + 'missing.js' }).error?.message;
    let missWhenReady;
    const ready = new Promise((resolve) => symbols(native).whenReady(() => {
      missWhenReady = native.getResourceSyncNative({ url: PREFIX + 'missing.js' }).error?.message;
      order.push('ready');
      resolve();
    }));
    const [info] = await Promise.all([infoNow, ready]);
    return { info, missNow, missWhenReady, order, notAFunction: symbols(native).whenReady(42) };
  },
};

// Resolves once `predicate` holds, checked turn by turn of the event loop; the deadline only
// guards against a hang (sanitized builds on a busy machine are slow).
const kHangGuardMs = 60000;
async function until(predicate) {
  const deadline = Date.now() + kHangGuardMs;
  while (Date.now() < deadline) {
    if (predicate()) return;
    await new Promise((resolve) => setImmediate(resolve));
  }
  throw new Error('condition never held: ' + JSON.stringify(globalThis.heardSoFar ?? null).slice(0, 3000));
}

scenarios.events = async (o) => {
  const native = require(addonPath);
  const heard = { packUpdated: [], queueFinished: [], records: [], states: [] };
  globalThis.heardSoFar = heard;
  const methods = o.methods === false ? {} : {
    onPackUpdated(name) { heard.packUpdated.push(name); },
    onQueueFinished(count) {
      heard.queueFinished.push(count);
      // A listener that throws is the host's failure: logged, and nothing else changes.
      if (heard.queueFinished.length === 1) throw new Error('listener broke');
    },
    sendEvent(record) { heard.records.push(record); },
    onStateChanged(reportText) { heard.states.push(JSON.parse(reportText)); },
  };
  const host = makeHost(native, o.server, methods);
  const keepAlive = setInterval(() => {}, 1 << 30);
  symbols(native).wantRecords(true);
  start(native, host, o.root, { server: o.server });
  // The first configuration, then updating, then each configured pack, as a host's update does.
  for (;;) {
    const { data } = await inspect(native, 'FerritDev.info');
    if (!(data.error || []).includes('NOT_UPDATE_CONFIG')) break;
    await new Promise((resolve) => setImmediate(resolve));
  }
  native.startUpdateNative();
  heard.installs = await Promise.all(['site', 'lib'].map((name) => new Promise((resolve) =>
    native.updatePackNative({ name }, (packName, error) => resolve([packName, error?.message ?? null])))));
  const served = (url) => native.getResourceSyncNative({ url }).error === undefined;
  if (o.methods !== false) {
    // Nothing is asked before the host hears the installs, so no visit has been recorded yet.
    await until(() => heard.queueFinished.length > 0 && heard.states.length >= 3 &&
      ['site', 'lib'].every((name) => heard.packUpdated.includes(name)));
    // A hit of "site" while records are wanted, one of "lib" while they are not, one of "site"
    // after: records reach the host in order, so a "lib" visit would come before the second one.
    const visits = (name) => heard.records.filter((r) => r.name === 'Ferrit.AppVisit' && r.dimensions.appName === name);
    heard.servedWhileOn = served(o.urls.site);
    symbols(native).wantRecords(false);
    heard.servedWhileOff = served(o.urls.lib);
    symbols(native).wantRecords(true);
    served(o.urls.site);
    await until(() => visits('site').length >= 2);
    heard.libVisits = visits('lib').length;
  }
  heard.served = [served(o.urls.site), served(o.urls.lib)];
  clearInterval(keepAlive);
  return { ...heard, notABoolean: symbols(native).wantRecords('yes') };
};

// The bridge's kBacklogLimit: entries that may wait for the script thread at once.
const kLogBacklogLimit = 1000;
// A burst that the script thread cannot take while it writes it.
const kLogBurst = 2500;
// Network status values, alternated so that each call logs a change.
const kNetworkSlowMobile = 2;
const kNetworkFastMobile = 3;

scenarios.log = async (o) => {
  const native = require(addonPath);
  const { logTo, logLevel } = symbols(native);
  const texts = [];
  const result = { levelAtStart: logLevel(), levelSet: logLevel(3), levelNow: logLevel('verbose') };
  logTo((text) => texts.push(text));
  // Written on the script thread: delivered later, in order.
  native.setNetworkStatusNative(kNetworkSlowMobile);
  native.setNetworkStatusNative(kNetworkFastMobile);
  result.deliveredDuringTheCall = texts.length;
  const statuses = () => texts.map((text) => JSON.parse(text)).filter((e) => e.event === 'networkStatus').map((e) => e.status);
  await until(() => statuses().length >= 2);
  result.order = statuses();
  result.first = JSON.parse(texts[0]);
  // A burst beyond the backlog: the rest is dropped and counted once.
  texts.length = 0;
  for (let i = 0; i < kLogBurst; ++i) native.setNetworkStatusNative(i % 2 ? kNetworkFastMobile : kNetworkSlowMobile);
  await until(() => texts.some((text) => JSON.parse(text).event === 'logDropped'));
  const entries = texts.map((text) => JSON.parse(text));
  result.burst = {
    delivered: entries.filter((e) => e.event === 'networkStatus').length,
    droppedAt: entries.findIndex((e) => e.event === 'logDropped'),
    dropped: entries.filter((e) => e.event === 'logDropped').map((e) => e.count),
    dropEntry: entries.find((e) => e.event === 'logDropped'),
  };
  // Entries from other threads reach the host too: setup's, written on the work pool.
  texts.length = 0;
  start(native, makeHost(native), o.root);
  await until(() => texts.some((text) => JSON.parse(text).event === 'setup'));
  result.setupEntry = JSON.parse(texts.find((text) => JSON.parse(text).event === 'setup'));
  // Back to stderr: the host hears nothing more.
  logTo(null);
  texts.length = 0;
  native.setNetworkStatusNative(kNetworkSlowMobile);
  result.afterNull = texts.length;
  result.notAFunction = logTo(42);
  // The process ends by itself with a sink in place and the library still logging.
  logTo(() => {});
  logLevel(5);
  return result;
};

// No server given and none compiled in: nothing is requested, and the log says why in words.
scenarios.noServer = async (o) => {
  const native = require(addonPath);
  const texts = [];
  symbols(native).logTo((text) => texts.push(text));
  const host = makeHost(native);
  const sent = [];
  const send = host.sendRequest;
  host.sendRequest = (request, id) => {
    sent.push(request.url);
    send(request, id);
  };
  start(native, host, o.root);
  for (;;) {
    const { data } = await inspect(native, 'FerritDev.info');
    if (!(data.error || []).includes('NOT_UPDATE_CONFIG')) break;
    await new Promise((resolve) => setImmediate(resolve));
  }
  await until(() => texts.some((text) => text.includes('No server address')));
  // The other environments' endpoints, which a host may give as well.
  native.setDefaultConfigNative({ configPrefixRelease: 'https://r.test/', configPrefixDebug: 'https://d.test',
    configPrefixDaily: 'http://y.test/', zipPrefixDaily: 'http://y.test/packs' });
  const { data: config } = await inspect(native, 'FerritDev.config');
  symbols(native).logTo(null);
  return { sent, failures: texts.map((text) => JSON.parse(text)).filter((e) => e.errorCode === '1002'), config };
};

async function runScenario(name) {
  const o = JSON.parse(process.env.FERRIT_HOOKS_OPTIONS || '{}');
  const result = await scenarios[name](o);
  process.stdout.write(JSON.stringify(result) + '\n');
  // Nothing of the library may keep the process alive once the scenario is done.
}

if (process.env.FERRIT_HOOKS_SCENARIO) {
  runScenario(process.env.FERRIT_HOOKS_SCENARIO).catch((error) => {
    process.stderr.write(`hooks scenario: ${error.stack}\n`);
    process.exit(1);
  });
  return;
}

// ---- The tests.

const test = require('node:test');
const { tempRoot, startServer } = require('./helpers');

// Runs one scenario in a fresh process; resolves with {result, stderr}.
function run(name, options = {}, env = {}) {
  const childEnv = { ...process.env, FERRIT_LOG_LEVEL: '2', ...env, FERRIT_HOOKS_SCENARIO: name,
    FERRIT_HOOKS_OPTIONS: JSON.stringify(options) };
  delete childEnv.NODE_TEST_CONTEXT;
  return new Promise((resolve, reject) => {
    execFile(process.execPath, [__filename], { encoding: 'utf8', timeout: 2 * kHangGuardMs, env: childEnv },
      (error, stdout, stderr) => {
        if (error) {
          reject(new Error(`scenario ${name} failed: ${error.message}\n${stderr}`));
          return;
        }
        resolve({ result: JSON.parse(stdout.trim().split('\n').pop()), stderr });
      });
  });
}

test('HooksTest.InspectRightAfterSetupAnswersTheReport', async (t) => {
  const { result } = await run('ready', { root: path.join(tempRoot(t), 'root') });
  assert.equal(result.info.success, true, JSON.stringify(result.info));
  assert.notEqual(result.info.data.code, kDevToolNotAvailable);
  assert.equal(result.info.data.version !== undefined, true, JSON.stringify(result.info));
  assert.ok(!(result.info.data.error || []).includes('NOT_SETUP'), JSON.stringify(result.info));
  assert.ok(!(result.info.data.error || []).includes('NO_PROXY'), JSON.stringify(result.info));
});

test('HooksTest.WhenReadyCallsBackAfterTheQueuedLifecycleNatives', async (t) => {
  const { result } = await run('ready', { root: path.join(tempRoot(t), 'root') });
  assert.deepEqual(result.order.sort(), ['info', 'ready']);
  // By then setProxyNative and setupNative have run: the miss is no longer about start-up order.
  assert.ok(result.missWhenReady, JSON.stringify(result));
  assert.doesNotMatch(result.missWhenReady, /setProxy not called|setup not called|still loading/);
  assert.equal(result.notAFunction, undefined, 'a non-function is ignored');
});

// A signed tree of two packs, "site" and "lib", published with the build's tool, served on
// loopback. Resolves with {server, urls, close}.
async function publishTree(t) {
  const dir = tempRoot(t);
  const site = path.join(dir, 'site');
  for (const folder of ['app', 'lib']) {
    fs.mkdirSync(path.join(site, folder), { recursive: true });
    fs.writeFileSync(path.join(site, folder, 'index.html'), PAGE);
  }
  const manifest = path.join(dir, 'manifest.json');
  fs.writeFileSync(manifest, JSON.stringify({
    app: { key: APP.appKey, version: APP.appVersion, locale: APP.locale },
    zips: 'packs/',
    packs: [
      { name: 'site', folder: 'app', prefix: PREFIX, priority: 9 },
      { name: 'lib', folder: 'lib', prefix: LIB_PREFIX, priority: 9 },
    ],
  }));
  const tree = path.join(dir, 'tree');
  execFileSync(ferritTool, ['publish', '--key', publisherPrivate, '--manifest', manifest, site, tree]);
  const { server, base } = await startServer((pathname) => {
    const file = path.join(tree, decodeURIComponent(pathname));
    if (!file.startsWith(tree) || !fs.existsSync(file) || !fs.statSync(file).isFile()) return undefined;
    return { body: fs.readFileSync(file) };
  });
  t.after(() => server.close());
  return { dir, server: base, urls: { site: PREFIX + 'index.html', lib: LIB_PREFIX + 'index.html' } };
}

test('HooksTest.HostMethodsHearInstallsQueueEndsAndRecords', async (t) => {
  const tree = await publishTree(t);
  const { result, stderr } = await run('events', { root: path.join(tree.dir, 'root'), server: tree.server, urls: tree.urls });
  assert.match(stderr, /"event":"hostMethod".*"reason":"onQueueFinished threw Error: listener broke"/);
  assert.deepEqual(result.installs, [['site', null], ['lib', null]]);
  assert.deepEqual(result.served, [true, true]);
  assert.deepEqual([...result.packUpdated].sort(), ['lib', 'site']);
  assert.ok(result.queueFinished.length >= 1);
  assert.ok(result.queueFinished.every((count) => Number.isInteger(count) && count >= 0), JSON.stringify(result.queueFinished));
  assert.ok(result.queueFinished.some((count) => count >= 2), JSON.stringify(result.queueFinished));
  const names = new Set(result.records.map((r) => r.name));
  for (const name of ['Ferrit.ConfigUpdate', 'Ferrit.AppUpdate', 'Ferrit.AppVisit']) assert.ok(names.has(name), [...names].join());
  for (const record of result.records) {
    assert.deepEqual(Object.keys(record), ['name', 'dimensions', 'measures']);
    for (const value of Object.values(record.dimensions)) assert.equal(typeof value, 'string');
    for (const value of Object.values(record.measures)) assert.equal(typeof value, 'number');
    assert.equal(typeof record.dimensions.sessionID, 'string');
  }
  const update = result.records.find((r) => r.name === 'Ferrit.AppUpdate' && r.dimensions.appName === 'site');
  assert.ok(update, 'the install of "site" is recorded');
  assert.equal(typeof update.measures.fileSize, 'number');
  assert.equal(result.servedWhileOn, true);
  assert.equal(result.servedWhileOff, true);
  assert.equal(result.libVisits, 0, 'no record is built while records are not wanted');
  assert.equal(result.notABoolean, undefined);
});

test('HooksTest.HostHearsEachLifecycleStateOnceWithTheStatusReport', async (t) => {
  const tree = await publishTree(t);
  const { result } = await run('events', { root: path.join(tree.dir, 'root'), server: tree.server, urls: tree.urls });
  // Set up, configured, updating: each report lacks one more of the codes of what is missing.
  const missing = result.states.map((report) => report.error ?? []);
  assert.deepEqual(missing, [['NOT_UPDATE_CONFIG', 'NOT_START_UPDATE'], ['NOT_START_UPDATE'], []]);
  for (const report of result.states) {
    assert.equal(report.storage, 'writable');
    assert.equal(typeof report.version, 'string');
    assert.equal(report.process, 'main');
  }
});

test('HooksTest.HostWithoutTheMethodsUpdatesAsBefore', async (t) => {
  const tree = await publishTree(t);
  const { result, stderr } = await run('events', { root: path.join(tree.dir, 'root'), server: tree.server, urls: tree.urls, methods: false });
  assert.deepEqual(result.installs, [['site', null], ['lib', null]]);
  assert.deepEqual(result.served, [true, true]);
  assert.deepEqual(result.packUpdated, []);
  assert.doesNotMatch(stderr, /hostMethod/);
});

test('HooksTest.LogEntriesReachTheHostInOrderAndBounded', async (t) => {
  const { result, stderr } = await run('log', { root: path.join(tempRoot(t), 'root') });
  assert.equal(result.levelAtStart, 2, 'FERRIT_LOG_LEVEL of the process');
  assert.equal(result.levelSet, 3);
  assert.equal(result.levelNow, 3, 'a non-number only reads the level');
  assert.equal(result.deliveredDuringTheCall, 0, 'an entry of the script thread is delivered later');
  assert.deepEqual(result.order, [kNetworkSlowMobile, kNetworkFastMobile]);
  assert.equal(result.first.level, 3);
  assert.equal(result.first.tag, 'Ferrit/Event');
  assert.equal(result.first.event, 'networkStatus');
  assert.ok(result.burst.delivered <= kLogBacklogLimit, JSON.stringify(result.burst));
  assert.ok(result.burst.delivered > 0);
  assert.equal(result.burst.droppedAt, result.burst.delivered, 'the count comes after what was kept');
  assert.deepEqual(result.burst.dropped, [kLogBurst - result.burst.delivered]);
  assert.deepEqual(result.burst.dropEntry, { level: 2, tag: 'Ferrit/Bridge', event: 'logDropped', count: kLogBurst - result.burst.delivered });
  assert.equal(result.setupEntry.tag, 'Ferrit/Setup');
  assert.equal(result.setupEntry.appKey, APP.appKey);
  assert.equal(result.afterNull, 0);
  assert.match(stderr, /"event":"networkStatus"[^\n]*"status":2\b/, 'null restores stderr');
  assert.doesNotMatch(stderr, /"status":3\b/, 'nothing the host heard went to stderr');
  assert.equal(result.notAFunction, undefined);
});

test('HooksTest.ProcessEndingWhileTheLogGoesToTheHostExitsCleanly', () => {
  const probePath = path.resolve(process.env.FERRITCORE_PROBE ||
    path.join(__dirname, '..', '..', 'build', 'node', 'ferritcore_probe.node'));
  // Threads keep writing while the environment goes away under the sink, and after.
  const script = `let n = 0; require(${JSON.stringify(probePath)}).keepLogging(() => { ++n; });
    setImmediate(() => setImmediate(() => {}));`;
  for (let run = 0; run < 10; ++run) {
    const child = spawnSync(process.execPath, ['-e', script], { encoding: 'utf8', timeout: 60000 });
    assert.equal(child.signal, null, `run ${run} ended by ${child.signal}: ${child.stderr.slice(-2000)}`);
    assert.equal(child.status, 0, `run ${run}: ${child.stderr.slice(-2000)}`);
  }
});

test('HooksTest.NoServerAddressSendsNothingAndSaysSo', async (t) => {
  const { result } = await run('noServer', { root: path.join(tempRoot(t), 'root') });
  assert.deepEqual(result.sent, []);
  assert.equal(result.failures.length, 1, JSON.stringify(result.failures));
  assert.equal(result.failures[0].event, 'finished');
  assert.equal(result.failures[0].errorMsg,
    'No server address: the host set no configuration server (configPrefixRelease)');
  assert.equal(result.config.configPrefixRelease, 'https://r.test/');
  assert.equal(result.config.configPrefixDebug, 'https://d.test/');
  assert.equal(result.config.configPrefixDaily, 'http://y.test/');
  assert.equal(result.config.zipPrefixDaily, 'http://y.test/packs/');
});
