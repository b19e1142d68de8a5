'use strict';
// How the package's entry point takes the publisher's key: a host object with neither a key nor
// the explicit insecureNoSignatureCheck flag, or with a key that is not an Ed25519 public key, is
// refused with an Error that says why, and nothing opens; the first host that passes opens.
const test = require('node:test');
const assert = require('node:assert/strict');
const crypto = require('crypto');
const fs = require('fs');
const path = require('path');

const { ferrit, tempRoot, makeHost, publisher, publisherPem } = require('./helpers');

const addonPath =
  process.env.FERRITCORE_ADDON || path.join(__dirname, '..', '..', 'build', 'node', 'ferritcore.node');
const native = require(addonPath);

function hostWith(fields) {
  const host = makeHost({});
  delete host.publicKey;
  return Object.assign(host, fields);
}

function refusedFor(code, pattern) {
  return (error) => {
    assert.ok(error instanceof Error);
    assert.equal(error.code, code);
    assert.match(error.message, pattern);
    return true;
  };
}

test('KeyTest', async (t) => {
  const root = tempRoot(t);
  const cache = path.join(root, 'cache');
  fs.mkdirSync(cache);

  await t.test('NoKeyAndNoFlagRefusesWithHowTo', () => {
    const howTo = /"publicKey" property of the host object.*ferrit keygen.*insecureNoSignatureCheck: true/s;
    for (const fields of [{}, { publicKey: undefined }, { publicKey: null },
      { insecureNoSignatureCheck: false }, { insecureNoSignatureCheck: 'true' }, { insecureNoSignatureCheck: 1 }]) {
      assert.throws(() => ferrit.setProxyNative(hostWith(fields), cache, null),
        refusedFor('FERRIT_NO_PUBLIC_KEY', howTo), JSON.stringify(fields));
    }
    // The native itself refuses too, for a host that loads the addon without the entry point.
    assert.equal(native.setProxyNative(hostWith({}), cache, null), false);
  });

  await t.test('MalformedKeyIsRefused', () => {
    const bad = {
      'text that is no key': 'not a key',
      'a truncated PEM file': publisherPem.slice(0, 60),
      'the private key file': publisher.privateKey.export({ format: 'pem', type: 'pkcs8' }),
      'a private KeyObject': publisher.privateKey,
      'a key of another kind': crypto.generateKeyPairSync('x25519').publicKey.export({ format: 'pem', type: 'spki' }),
      '31 raw bytes': Buffer.alloc(31, 7),
      'an empty Buffer': Buffer.alloc(0),
      'a number': 42,
      'an object': { key: publisherPem },
    };
    for (const [what, publicKey] of Object.entries(bad)) {
      // A key that cannot be read is refused even beside the flag: the host meant to be checked.
      for (const fields of [{ publicKey }, { publicKey, insecureNoSignatureCheck: true }]) {
        assert.throws(() => ferrit.setProxyNative(hostWith(fields), cache, null),
          refusedFor('FERRIT_BAD_PUBLIC_KEY', /"publicKey" is not an Ed25519 public key: .+/), what);
        assert.equal(native.setProxyNative(hostWith(fields), cache, null), false, what);
      }
    }
    assert.throws(() => ferrit.setProxyNative(hostWith({ publicKey: publisher.privateKey }), cache, null),
      /private key; give the public key/);
    assert.throws(() => ferrit.setProxyNative(hostWith({ publicKey: bad['a key of another kind'] }), cache, null),
      /not an Ed25519 key/);
  });

  await t.test('RefusedHostsLeftTheProcessUnopened', async () => {
    // The proxy is set once per process: had any refusal above opened, this host would not be the
    // one the library asks.
    const host = makeHost({});
    assert.equal(ferrit.setProxyNative(host, cache, null), true);
    ferrit.setDefaultConfigNative({ configPrefixRelease: 'https://files.example.com/' });
    ferrit.setupNative('key', '1.0', 1);
    await new Promise((resolve) => {
      const poll = () => (host.requests.length > 0 ? resolve() : setImmediate(poll));
      poll();
    });
    assert.ok(host.requests[0].request.url.startsWith('https://files.example.com/fconfig/key/1.0/'));
  });
});
