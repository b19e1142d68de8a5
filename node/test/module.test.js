'use strict';
// The module's shape and the argument rules of every native, in a process whose proxy is never
// set: wrong counts and types give the documented undefined or false, never a crash.
const test = require('node:test');
const assert = require('node:assert/strict');
const path = require('path');

const { ferrit } = require('./helpers');

const addonPath =
  process.env.FERRITCORE_ADDON || path.join(__dirname, '..', '..', 'build', 'node', 'ferritcore.node');
const native = require(addonPath);

const NAMES = [
  'setProxyNative',
  'onSendRequestFinishedNative',
  'setEnvNative',
  'setLocaleNative',
  'setDefaultConfigNative',
  'setNetworkStatusNative',
  'registerAcceptNative',
  'setupNative',
  'startUpdateNative',
  'clientActivedNative',
  'clientDeactivedNative',
  'installPreloadNative',
  'getAccessAPINative',
  'prefetchNative',
  'updatePackNative',
  'getResourceSyncNative',
  'getResourceNative',
  'getACacheRootPathNative',
];

// Values of every kind a host could get wrong.
const WRONG = [
  undefined,
  null,
  true,
  0,
  -1,
  NaN,
  Infinity,
  '1',
  '',
  'x'.repeat(1 << 24),
  [],
  ['a'],
  {},
  { length: 3 },
  () => {},
  Symbol('s'),
  10n,
  new ArrayBuffer(4),
  Buffer.from('abc'),
  new Proxy({}, { get() { throw new Error('trap'); }, ownKeys() { throw new Error('trap'); } }),
];

const throwingRequest = {
  get url() { throw new Error('url getter'); },
  get header() { throw new Error('header getter'); },
  get traceId() { throw new Error('traceId getter'); },
  get packName() { throw new Error('packName getter'); },
  get packVersion() { throw new Error('packVersion getter'); },
};

test('ModuleTest.EighteenPropertiesInTheirOrder', () => {
  assert.deepEqual(Object.getOwnPropertyNames(native), NAMES);
  for (const name of NAMES) assert.equal(typeof native[name], 'function', name);
  assert.equal(typeof native[Symbol.for('ferritcore.inspect')], 'function');
});

test('ModuleTest.PackageExportsTheNativesAndInspect', () => {
  assert.deepEqual(Object.keys(ferrit), [...NAMES, 'inspect', 'open', 'FerritError']);
});

test('ModuleTest.AccessApiIsTheSameAddressOnEveryCall', () => {
  const first = native.getAccessAPINative();
  assert.equal(typeof first, 'bigint');
  assert.notEqual(first, 0n);
  assert.equal(native.getAccessAPINative('ignored', 1), first);
});

test('ModuleTest.SetProxyWithTwoArgumentsReturnsFalse', () => {
  assert.equal(native.setProxyNative({}, '/tmp'), false);
  assert.equal(native.setProxyNative(), false);
  assert.equal(native.setProxyNative({}, 1, '/tmp'), false);
  assert.equal(native.setProxyNative({}, '/tmp', '', 'fourth'), false);
  // Not an object: there is no host to keep.
  assert.equal(native.setProxyNative('host', '/tmp', ''), false);
});

test('ModuleTest.SetEnvAsStringIsIgnored', () => {
  assert.equal(native.setEnvNative('1'), undefined);
  assert.equal(native.setEnvNative(), undefined);
});

test('ModuleTest.GetResourceSyncWithoutProxyAnswersNotFerritResource', () => {
  const response = native.getResourceSyncNative({ url: 'https://nothing.example.com/a.js' });
  assert.deepEqual(Object.keys(response), ['data', 'md5', 'header', 'error', 'is404']);
  assert.equal(response.data, undefined);
  assert.equal(response.error.code, 3001);
  assert.equal(response.is404, false);
  assert.equal(native.getResourceSyncNative(), undefined);
});

test('ModuleTest.RequestWhoseGettersThrowIsAnEmptyRequest', () => {
  const response = native.getResourceSyncNative(throwingRequest);
  assert.equal(response.error.code, 3001);
  assert.equal(response.error.message, 'Not Ferrit resource');
});

test('ModuleTest.GetResourceAsyncAnswersThroughTheCallback', async () => {
  const response = await new Promise((resolve) => {
    assert.equal(native.getResourceNative({ url: '' }, resolve), undefined);
  });
  assert.equal(response.error.code, 3001);
  assert.equal(native.getResourceNative({ url: '' }), undefined);
  assert.equal(native.getResourceNative({ url: '' }, 'not a function'), undefined);
});

test('ModuleTest.UpdatePackAnswersThroughTheCallback', async () => {
  const [name, error] = await new Promise((resolve) => {
    native.updatePackNative({ name: 'shop', progressId: 3 }, (...args) => resolve(args));
  });
  assert.equal(name, 'shop');
  // The update goes to the pack install, which knows no record of that name.
  assert.equal(error.code, 3201);
  assert.equal(native.updatePackNative({ name: 'shop' }), undefined);
});

test('ModuleTest.ACacheRootPathRules', () => {
  assert.equal(native.getACacheRootPathNative(), undefined);
  assert.equal(native.getACacheRootPathNative(1, 'x'), undefined);
  assert.equal(native.getACacheRootPathNative('unknown'), '');
  assert.equal(native.getACacheRootPathNative('unknown', 7), '');
});

test('ModuleTest.WrongArgumentsForEveryNativeNeverCrash', () => {
  const expected = (name, result) => {
    if (name === 'setProxyNative') return assert.equal(result, false, name);
    if (name === 'getAccessAPINative') return assert.equal(typeof result, 'bigint');
    if (name === 'getResourceSyncNative') {
      if (result !== undefined) assert.equal(typeof result, 'object');
      return;
    }
    if (name === 'getACacheRootPathNative') {
      assert.ok(result === undefined || result === '', `${name}: ${result}`);
      return;
    }
    assert.equal(result, undefined, name);
  };
  for (const name of NAMES) {
    if (name === 'setupNative' || name === 'startUpdateNative') continue;  // see below
    expected(name, native[name]());
    for (const a of WRONG) {
      expected(name, native[name](a));
      for (const b of WRONG.slice(0, 8)) {
        if (name === 'setProxyNative' && (typeof a === 'function' || (typeof a === 'object' && a !== null)) &&
            typeof b === 'string')
          continue;  // that would set the proxy of this process
        expected(name, native[name](a, b));
        expected(name, native[name](a, b, WRONG[WRONG.length - 1]));
      }
    }
    expected(name, native[name](throwingRequest, throwingRequest, throwingRequest));
  }
  // Without a proxy, setup only stores the app's names; it is still fed every kind of value.
  for (const a of WRONG) {
    assert.equal(native.setupNative(a, a, a), undefined);
    assert.equal(native.setupNative('key', '1.0', a), undefined);
  }
  assert.equal(native.startUpdateNative(1, 2, 3), undefined);
});

test('ModuleTest.OnSendRequestFinishedWithIdZeroDoesNothing', () => {
  assert.equal(native.onSendRequestFinishedNative('0', { statusCode: 200 }), undefined);
  assert.equal(native.onSendRequestFinishedNative('0'), undefined);
  // Ids that were never handed out find nothing.
  assert.equal(native.onSendRequestFinishedNative('12345678', {}), undefined);
  assert.equal(native.onSendRequestFinishedNative('-5', {}), undefined);
  assert.equal(native.onSendRequestFinishedNative('18446744073709551616', {}), undefined);
  assert.equal(native.onSendRequestFinishedNative('1e3', {}), undefined);
});

test('ModuleTest.InspectUnknownCommandRejects', async () => {
  await assert.rejects(ferrit.inspect('FerritDev.nothing'), (error) => error.code === 9996);
  await assert.rejects(ferrit.inspect(42), TypeError);
});
