// Every line marked with an error code must fail to compile with that code: the
// declarations must not let a host forget that these values can be undefined.
import * as ferrit from 'ferritcore';

const response = ferrit.getResourceSyncNative({ url: 'https://example.com/a.js' });
const size: number = response.data.byteLength; // error TS18048
const bytes = Buffer.from(response.data); // error TS2769
const nothing = ferrit.getResourceSyncNative();
console.log(nothing.md5); // error TS18048
ferrit.getResourceNative({ url: 'https://example.com/a.js' }, (later) => console.log(later.is404)); // error TS18048
const folder: string = ferrit.getACacheRootPathNative(); // error TS2322
console.log(size, bytes, folder);
