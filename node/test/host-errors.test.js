'use strict';
// What a host that fails its requests reads: the host's own words come back in the error, and a
// status code that no HTTP response has is shown as the host gave it, with the reason.
const test = require('node:test');
const assert = require('node:assert/strict');
const http = require('http');
const path = require('path');

const { ferrit, tempRoot, startServer, waitFor, signDocument, publisherPem } = require('./helpers');

const probePath =
  process.env.FERRITCORE_PROBE || path.join(__dirname, '..', '..', 'build', 'node', 'ferritcore_probe.node');
const probe = require(probePath);

test('HostErrorTest.StatusCodeOutsideHttpIsShownAsGivenWithTheReason', () => {
  for (const [given, shown] of [[-1, '-1'], [0, '0'], [600, '600'], [70000, '70000'], [200.5, '200.5'], [NaN, 'nan']]) {
    const error = probe.checkProxyStatus({ statusCode: given });
    assert.equal(error.code, 1004, `${given}`);
    assert.equal(error.message,
      `invalid status code ${shown} from the host: not an HTTP status (a whole number from 100 to 599)`);
  }
  for (const status of [100, 200, 304, 404, 599]) assert.equal(probe.checkProxyStatus({ statusCode: status }).code, 0);
  // Absent or not a number: 200, as before.
  assert.equal(probe.checkProxyStatus({}).code, 0);
  assert.equal(probe.checkProxyStatus({ statusCode: '-1' }).code, 0);
  assert.equal(probe.checkProxyStatus('nothing').code, 0);
});

// Packs whose pack configuration requests fail, each its own way.
const PACKS = ['thrower', 'negative', 'reporter', 'missing'];
const DOCUMENT = {
  v: '1732200000000',
  i: 4294967295,
  packs: Object.fromEntries(PACKS.map((name) => [name, { s: 2, f: 80, p: [`https://${name}.example.com/`] }])),
};

test('HostErrorTest.HostFailuresReachTheCallerInTheHostsWords', async (t) => {
  const root = tempRoot(t);
  const { server, base } = await startServer((pathname) =>
    pathname.startsWith('/fconfig/') ? { body: signDocument(DOCUMENT) } : undefined);
  t.after(() => server.close());
  const host = {
    publicKey: publisherPem,
    sendRequest(request, id) {
      const answer = (response, error) => ferrit.onSendRequestFinishedNative(id, response, error);
      const name = PACKS.find((pack) => request.url.includes(`/packconfig/${pack}/`));
      if (!name) {
        http.get(request.url, (res) => {
          const chunks = [];
          res.on('data', (chunk) => chunks.push(chunk));
          res.on('end', () => answer({ statusCode: res.statusCode, content: Buffer.concat(chunks) }));
        });
        return;
      }
      if (name === 'thrower') throw new TypeError('the host is offline');
      if (name === 'negative') setImmediate(() => answer({ statusCode: -1 }));
      else if (name === 'reporter') setImmediate(() => answer(undefined, { code: 7, message: 'no route to host' }));
      else setImmediate(() => answer({ statusCode: 404 }));
    },
    createError(code, message) {
      const error = new Error(message);
      error.code = code;
      return error;
    },
  };
  ferrit.setDefaultConfigNative({ configPrefixRelease: base, zipPrefixRelease: 'https://zips.example.com/', configUpdateInterval: 0 });
  assert.equal(ferrit.setProxyNative(host, path.join(root, 'cache'), ''), true);
  ferrit.setNetworkStatusNative(1);
  ferrit.setupNative('app', '1.0', 1);
  await waitFor(async () => {
    try {
      return !((await ferrit.inspect('FerritDev.info')).error || []).includes('NOT_UPDATE_CONFIG');
    } catch {
      return false;
    }
  });

  const update = (name) => new Promise((resolve) => ferrit.updatePackNative({ name }, (_, error) => resolve(error)));
  const thrown = await update('thrower');
  assert.ok(thrown instanceof Error);
  assert.match(thrown.message, /9995, NAPI failed: sendRequest threw TypeError: the host is offline/);
  const negative = await update('negative');
  assert.match(negative.message,
    /invalid status code -1 from the host: not an HTTP status \(a whole number from 100 to 599\)/);
  assert.doesNotMatch(negative.message, /65535/);
  const reported = await update('reporter');
  assert.match(reported.message, /request ".*\/packconfig\/reporter\/.*" failed: 7, no route to host/);
  // An HTTP status is still an HTTP status.
  console.log([thrown, negative, reported].map((error) => `${error.code} ${error.message}`).join('\n'));
  const missing = await update('missing');
  assert.match(missing.message, /invalid status code 404 \(Not Found\)$/);
});
