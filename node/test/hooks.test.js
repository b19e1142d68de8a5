'use strict';
// The natives' side of the package's host API, reached through symbols on the addon's exports:
// whenReady, the inspect channel behind the lifecycle natives, the host object's optional methods
// (onPackUpdated, onQueueFinished, sendEvent, onStateChanged), wantRecords, logTo and logLevel.
//
// The proxy is set once per process and start-up happens once, so each scenario runs in a fresh
// process: this file runs itself with FERRIT_HOOKS_SCENARIO naming the scenario, which prints one
// JSON line with what it saw on stdout.
const assert = require('node:assert/strict');
const { execFile, execFileSync } = require('child_process');
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
const kModeAutoUpdate = 0;
// The inspector's answer for a command that is not registered (yet).
const kDevToolNotAvailable = 9996;

const APP = { appKey: 'hooks', appVersion: '1.0', locale: 'en' };
const PREFIX = 'https://hooks.example.com/app/';
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
    execFile(process.execPath, [__filename], { encoding: 'utf8', timeout: 60000, env: childEnv },
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
