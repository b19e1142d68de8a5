'use strict';
// One host process for the signature tests: opens the package with a key in the form asked for
// (or with insecureNoSignatureCheck), runs the start-up order against a published tree on a local
// server (or offline), installs the configured packs, asks for one URL, and prints what happened
// as one JSON line on stdout. The library's log goes to stderr, where the parent reads it.
//
//   node signatureHost.js '{"root", "server"?, "key": {"form", "file"}?, "insecure"?, "url",
//                           "appKey", "appVersion", "locale"}'
const crypto = require('crypto');
const fs = require('fs');

const { ferrit, makeHost, waitFor } = require('./helpers');

// Environment 2 is "Release", whose prefixes setDefaultConfigNative sets.
const kEnvRelease = 2;
// Network status 1: unrestricted.
const kNetworkUnrestricted = 1;
// Bit 0 of setup's mode: the host calls startUpdateNative itself.
const kModeHostStartsUpdate = 1;

// The public key file as a host may hold it.
function keyIn(form, file) {
  const pem = fs.readFileSync(file);
  const keyObject = crypto.createPublicKey(pem);
  const raw = Buffer.from(keyObject.export({ format: 'jwk' }).x, 'base64url');
  switch (form) {
    case 'pem': return pem.toString('utf8');
    case 'pemBuffer': return pem;
    case 'raw': return raw;
    case 'rawBase64': return raw.toString('base64');
    case 'keyObject': return keyObject;
    default: throw new Error(`unknown key form ${form}`);
  }
}

async function info() {
  try {
    return await ferrit.inspect('FerritDev.info');
  } catch {
    return undefined;  // not registered before setup has run
  }
}

function updatePack(name) {
  return new Promise((resolve) => {
    ferrit.updatePackNative({ name }, (packName, error) =>
      resolve({ name: packName, error: error ? `${error.code} ${error.message}` : undefined }));
  });
}

async function main() {
  const o = JSON.parse(process.argv[2]);
  const host = makeHost({ httpBase: o.server });
  delete host.publicKey;
  if (o.key) host.publicKey = keyIn(o.key.form, o.key.file);
  if (o.insecure) host.insecureNoSignatureCheck = true;
  const keepAlive = setInterval(() => {}, 1 << 30);

  ferrit.setEnvNative(kEnvRelease);
  ferrit.setLocaleNative(o.locale);
  ferrit.setNetworkStatusNative(kNetworkUnrestricted);
  if (o.server) ferrit.setDefaultConfigNative({ configPrefixRelease: o.server, zipPrefixRelease: `${o.server}packs/` });
  if (ferrit.setProxyNative(host, o.root, null) !== true) throw new Error('setProxyNative refused the host');
  ferrit.setupNative(o.appKey, o.appVersion, kModeHostStartsUpdate);
  await waitFor(async () => {
    const report = await info();
    return report && !(report.error || []).includes('NOT_UPDATE_CONFIG');
  });
  ferrit.startUpdateNative();

  const fconfig = await ferrit.inspect('FerritDev.fconfig');
  const installs = [];
  if (o.server) {
    for (const [name, record] of Object.entries(fconfig.packs ?? {})) {
      if (Number(record.s ?? 0) !== Number(record.installedSeq ?? 0)) installs.push(await updatePack(name));
    }
  }
  const response = await new Promise((resolve) => ferrit.getResourceNative({ url: o.url }, resolve));
  const result = {
    configVersion: fconfig.v,
    installs,
    served: response.error === undefined && response.data !== undefined,
    body: response.data ? Buffer.from(response.data).toString('utf8') : undefined,
    error: response.error ? { code: response.error.code, message: response.error.message } : undefined,
  };
  process.stdout.write(JSON.stringify(result) + '\n');
  clearInterval(keepAlive);
  process.exit(0);
}

main().catch((error) => {
  process.stderr.write(`signatureHost: ${error.stack}\n`);
  process.exit(1);
});
