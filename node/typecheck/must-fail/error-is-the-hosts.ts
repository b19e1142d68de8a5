// Every line marked with an error code must fail to compile with those codes: the error value
// is whatever the host's createError returned, not an Error the library promises.
import * as ferrit from 'ferritcore';

const response = ferrit.getResourceSyncNative({ url: 'https://example.com/a.js' });
if (response.error !== undefined) {
  console.log(response.error.message); // error TS18047 TS2339
}
ferrit.updatePackNative({ name: 'app' }, (name, error) => {
  if (error !== undefined) console.log(name, error.stack); // error TS18047 TS2339
});
ferrit.setEnvNative(5); // error TS2345
ferrit.setNetworkStatusNative('none'); // error TS2345
ferrit.setProxyNative({ publicKey: 'key', sendRequest() {} }, '/tmp/root', undefined); // error TS2345
