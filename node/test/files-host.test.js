'use strict';
// A host that answers "sendRequest" from files, after first failing in the worst way: its method
// throws. The library fails that request instead of waiting for an answer that never comes.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');

const { ferrit, tempRoot, makeHost, waitFor, signDocument } = require('./helpers');

const DOCUMENT = { v: '1732300000000', i: 4294967295, packs: { docs: { s: 2, f: 80, p: ['https://docs.example.com/'] } } };

async function info() {
  try {
    return await ferrit.inspect('FerritDev.info');
  } catch {
    return undefined;
  }
}

test('FilesHostTest.ThrowingHostFailsTheRequestThenFilesServeIt', async (t) => {
  const root = tempRoot(t);
  const files = path.join(root, 'files');
  const served = path.join(files, 'fconfig', 'docs', '2.0', '0~0');
  fs.mkdirSync(served, { recursive: true });
  fs.writeFileSync(path.join(served, '~'), signDocument(DOCUMENT));
  fs.mkdirSync(path.join(root, 'cache'));

  const fileHost = makeHost({ filesFolder: files });
  let mode = 'throw';
  const host = {
    publicKey: fileHost.publicKey,
    requests: 0,
    sendRequest(request, id) {
      host.requests++;
      if (mode === 'throw') throw new Error('the host is broken');
      return fileHost.sendRequest(request, id);
    },
    createError: fileHost.createError,
  };
  ferrit.setDefaultConfigNative({ configPrefixRelease: 'https://files.example.com/' });
  assert.equal(ferrit.setProxyNative(host, path.join(root, 'cache'), null), true);
  ferrit.setupNative('docs', '2.0', 1);
  // The first configuration run ends (with its failure) although the host never answered.
  await waitFor(async () => {
    const report = await info();
    return report && !(report.error || []).includes('NOT_UPDATE_CONFIG');
  });
  assert.equal(host.requests, 1);
  assert.equal((await ferrit.inspect('FerritDev.fconfig')).v, undefined);

  mode = 'files';
  assert.deepEqual(await ferrit.inspect('FerritDev.update'), {});
  assert.equal(host.requests, 2);
  assert.equal(fileHost.requests[0].request.url, 'https://files.example.com/fconfig/docs/2.0/0~0/~');
  const fconfig = await ferrit.inspect('FerritDev.fconfig');
  assert.equal(fconfig.v, '1732300000000');
  assert.deepEqual(Object.keys(fconfig.packs), ['docs']);

  // Without a raw-file folder nothing is read from the app's files.
  assert.equal(ferrit.getResourceSyncNative({ url: 'https://docs.example.com/a.html' }).error.code, 3104);
});
