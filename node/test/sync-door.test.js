'use strict';
// The package's getResourceSyncNative reads the request and builds the response object in script
// around the module's own door; it must answer exactly what the native getResourceSyncNative
// answers: the same five properties in the same order, the same bytes, header and errors, for
// answers read into a plain ArrayBuffer (small) and into a Buffer's (large) alike.
const test = require('node:test');
const assert = require('node:assert/strict');
const path = require('path');

const { ferrit, md5, tempRoot, makeAssets, makeHost, waitFor } = require('./helpers');
const { removeTree } = require('./removeTree');

const addonPath =
  process.env.FERRITCORE_ADDON || path.join(__dirname, '..', '..', 'build', 'node', 'ferritcore.node');
const native = require(addonPath);

const PREFIX = 'https://door.example.com/';
// Sizes on both sides of the size where the bytes stop going to a zero-filled ArrayBuffer.
const BODIES = {
  'one.js': Buffer.alloc(1024, 'o'),
  'edge.js': Buffer.alloc(32 * 1024, 'e'),
  'over.js': Buffer.alloc(32 * 1024 + 1, 'v'),
  'large.js': Buffer.alloc(128 * 1024, 'l'),
  'style.css': Buffer.from('body { color: red; }'),
};

const root = tempRoot();
test.after(() => removeTree(root));
test.before(async () => {
  const assets = makeAssets(path.join(root, 'rawfile'), {
    door: { seq: 1, prefix: PREFIX, files: BODIES },
  });
  assert.equal(ferrit.setProxyNative(makeHost({}), path.join(root, 'cache'), assets), true);
  await waitFor(() => ferrit.getResourceSyncNative({ url: PREFIX + 'one.js' }).error === undefined);
});

// The header without "Date", which may turn to the next second between two calls.
function stable(header) {
  const { Date: date, ...rest } = header;
  assert.equal(typeof date, 'string');
  return rest;
}

test('SyncDoorTest.HitsAreTheNativesObjectWithTheFilesBytes', () => {
  assert.notEqual(ferrit.getResourceSyncNative, native.getResourceSyncNative);
  for (const [name, body] of Object.entries(BODIES)) {
    const request = { url: PREFIX + name, header: { Accept: '*/*' } };
    const ours = ferrit.getResourceSyncNative(request);
    const theirs = native.getResourceSyncNative(request);
    assert.deepEqual(Object.keys(ours), ['data', 'md5', 'header', 'error', 'is404'], name);
    assert.ok(ours.data instanceof ArrayBuffer, name);
    assert.deepEqual(Buffer.from(ours.data), body, name);
    assert.equal(ours.md5, md5(body), name);
    assert.equal(ours.md5, theirs.md5, name);
    assert.deepEqual(Object.keys(ours.header), Object.keys(theirs.header), name);
    assert.deepEqual(stable(ours.header), stable(theirs.header), name);
    assert.equal(ours.error, undefined, name);
    assert.equal(ours.is404, theirs.is404, name);
    // Each call has bytes of its own.
    assert.notEqual(ferrit.getResourceSyncNative(request).data, ours.data, name);
  }
});

test('SyncDoorTest.MissesAndOddRequestsAnswerAsTheNativeDoes', () => {
  assert.equal(ferrit.getResourceSyncNative(), undefined);
  for (const request of [undefined, null, 7, 'text', { url: 'https://elsewhere.example.com/a.js' }]) {
    const ours = ferrit.getResourceSyncNative(request);
    const theirs = native.getResourceSyncNative(request);
    assert.deepEqual(Object.keys(ours), ['data', 'md5', 'header', 'error', 'is404']);
    assert.equal(ours.data, undefined);
    assert.equal(ours.error.code, theirs.error.code);
    assert.equal(ours.error.message, theirs.error.message);
    assert.equal(ours.is404, theirs.is404);
  }
});

test('SyncDoorTest.FieldsWithANulAndThrowingGettersReadAsTheNativeReadsThem', () => {
  // A NUL in a header value sends the fields as an array instead of one text.
  const withNul = { url: PREFIX + 'one.js', header: { 'X-Odd': 'a\0b', Accept: '*/*' } };
  assert.deepEqual(Buffer.from(ferrit.getResourceSyncNative(withNul).data), BODIES['one.js']);
  const nulInUrl = ferrit.getResourceSyncNative({ url: PREFIX + 'one.js\0' });
  assert.equal(nulInUrl.error.code, native.getResourceSyncNative({ url: PREFIX + 'one.js\0' }).error.code);
  // Each getter runs once per call, and one that throws reads as absent.
  let reads = 0;
  const request = {
    get url() {
      reads += 1;
      return PREFIX + 'one.js';
    },
    get header() {
      throw new Error('no header');
    },
  };
  assert.deepEqual(Buffer.from(ferrit.getResourceSyncNative(request).data), BODIES['one.js']);
  assert.equal(reads, 1);
});

test('SyncDoorTest.HeadersOfHitsInARowAreRightAndTheCallersOwn', () => {
  const js = { url: PREFIX + 'one.js' };
  const css = { url: PREFIX + 'style.css' };
  // After a hit of another type, this one's header comes in full and is kept for the next.
  ferrit.getResourceSyncNative(css);
  const first = ferrit.getResourceSyncNative(js);
  // The caller may change what it was given: the next hit's header is whole all the same.
  first.header['Content-Type'] = 'changed';
  first.header.Extra = 'added';
  // Hits whose headers alternate, and a miss between them, each get their own header.
  const sequence = [js, js, css, css, js, { url: 'https://elsewhere.example.com/a.js' }, css, js];
  for (const [i, request] of sequence.entries()) {
    const ours = ferrit.getResourceSyncNative(request);
    const theirs = native.getResourceSyncNative(request);
    if (theirs.error) {
      assert.equal(ours.error.code, theirs.error.code, `call ${i}`);
      continue;
    }
    assert.deepEqual(Object.keys(ours.header), Object.keys(theirs.header), `call ${i}`);
    assert.deepEqual(stable(ours.header), stable(theirs.header), `call ${i}`);
    assert.equal(ours.md5, theirs.md5, `call ${i}`);
  }
  const css1 = ferrit.getResourceSyncNative(css);
  const css2 = ferrit.getResourceSyncNative(css);
  assert.notEqual(css1.header, css2.header);
  assert.match(css2.header['Content-Type'], /css/);
  assert.equal(css2.header.Extra, undefined);
});
