// The README's example, checked against index.d.ts with `tsc --noEmit`.
import * as fs from 'fs';
import * as ferrit from 'ferritcore';

const host: ferrit.HostBridge = {
  // The publisher's Ed25519 public key as `ferrit keygen` wrote it: every signed resource list and
  // configuration document is checked with it before the library trusts it.
  publicKey: fs.readFileSync('publisher.pub.pem'),
  // The library asks the host for every network request; this host has no network.
  sendRequest(request: ferrit.ProxyRequestObject, id: string) {
    setImmediate(() =>
      ferrit.onSendRequestFinishedNative(id, undefined, { code: 1, message: `offline: ${request.url}` }));
  },
  createError(code: number, message: string) {
    return Object.assign(new Error(message), { code });
  },
};

fs.mkdirSync('/tmp/ferrit-example/cache', { recursive: true });
ferrit.setProxyNative(host, '/tmp/ferrit-example/cache', '/tmp/ferrit-example/rawfile');
ferrit.setupNative('example', '1.0', 1);

const response: ferrit.ResourceResponseObject = ferrit.getResourceSyncNative({
  url: 'https://example.com/static/app.js',
  header: { Accept: '*/*' },
});
if (response.error === undefined && response.data !== undefined) {
  console.log(response.header['Content-Type'], Buffer.from(response.data).toString());
} else {
  console.log('not served; the host goes to the network');
}

ferrit.getResourceNative({ url: 'https://example.com/static/app.js' }, (later) => console.log(later.is404));
ferrit.inspect('FerritDev.info').then((report) => console.log(report));

// A development host only: no key, and no signature checked.
const unchecked: ferrit.HostBridge = { ...host, publicKey: undefined, insecureNoSignatureCheck: true };
void unchecked;
