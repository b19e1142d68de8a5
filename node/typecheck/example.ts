// A host written against index.d.ts, checked with the compiler in strict mode: the natives as the
// README's reference describes them, with the error type the host's createError makes.
import * as fs from 'fs';
import * as ferrit from 'ferritcore';

class HostError extends Error {
  constructor(readonly code: number, message: string) {
    super(message);
  }
}

const host: ferrit.HostBridge<HostError> = {
  // The publisher's Ed25519 public key as `ferrit keygen` wrote it: every signed resource list and
  // configuration document is checked with it before the library trusts it.
  publicKey: fs.readFileSync('publisher.pub.pem'),
  // The library asks the host for every network request; this host has no network.
  sendRequest(request: ferrit.ProxyRequestObject, id: string) {
    setImmediate(() =>
      ferrit.onSendRequestFinishedNative(id, undefined, { code: 1, message: `offline: ${request.url}` }));
  },
  createError(code: number, message: string) {
    return new HostError(code, message);
  },
  onPackUpdated(name: string) {
    console.log(`pack ${name} updated`);
  },
};

// The error value is the host's, or the library's own object when it had no host to ask.
function describe(error: ferrit.HostErrorValue<HostError>): string {
  return error instanceof HostError ? `${error.code} ${error.message}` : `${error.code} ${error.message}`;
}

fs.mkdirSync('/tmp/ferrit-example/cache', { recursive: true });
const opened: boolean = ferrit.setProxyNative(host, '/tmp/ferrit-example/cache', '/tmp/ferrit-example/rawfile');
ferrit.setEnvNative(2);
ferrit.setNetworkStatusNative(1);
ferrit.setupNative('example', '1.0', 1);

const response = ferrit.getResourceSyncNative<HostError>({
  url: 'https://example.com/static/app.js',
  header: { Accept: '*/*' },
});
if (response.error === undefined && response.data !== undefined) {
  console.log(response.header['Content-Type'], Buffer.from(response.data).toString());
} else if (response.error !== undefined) {
  console.log(`not served (${describe(response.error)}); the host goes to the network`, opened);
}
const nothing: undefined = ferrit.getResourceSyncNative();
void nothing;

ferrit.getResourceNative({ url: 'https://example.com/static/app.js' }, (later) => {
  if (later !== undefined) console.log(later.is404, later.md5);
});
ferrit.updatePackNative({ name: 'app' }, (name, error) => {
  console.log(name, error === undefined ? 'installed' : error);
});
const folder: string = ferrit.getACacheRootPathNative('app', 'index.html');
const address: bigint = ferrit.getAccessAPINative();
console.log(folder, address);
ferrit.inspect('FerritDev.info').then((report) => console.log(report));

// A development host only: no key, and no signature checked.
const unchecked: ferrit.HostBridge<HostError> = { ...host, publicKey: undefined, insecureNoSignatureCheck: true };
void unchecked;
