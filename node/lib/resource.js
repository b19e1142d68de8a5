'use strict';
// getResourceSyncNative as the package exports it: the request is read and the response object
// built here, in script, around the module's "resourceSync", so that a hit crosses the boundary
// with that one call. The native getResourceSyncNative does the same work by calling back into
// script twice (once to read the request, once to build the object), and each of those calls
// from native code costs more than the work it does.

// What a value that is not an object reads as: a request with an empty URL.
const EMPTY_REQUEST = '0\0\0\0\0';
const ZERO = '0'.charCodeAt(0);
// The first character of a hit's text, less "0": is404 in bit 0; bit 1 set, the header is the one
// of the last hit sent in full, and the text holds only the MD5 after it.
const IS_404 = 1;
const SAME_HEADER = 2;

// The header of a hit's text: each name and value after a NUL, from `at`; cut with indexOf, which
// makes no array of the pieces as split would.
function headerOf(text, at) {
  const header = {};
  while (at >= 0) {
    const value = text.indexOf('\0', at + 1);
    const end = text.indexOf('\0', value + 1);
    header[text.slice(at + 1, value)] = end < 0 ? text.slice(value + 1) : text.slice(value + 1, end);
    at = end;
  }
  return header;
}

// getResourceSyncNative over the native `resourceSync`: the same arguments, the same object.
// `requestFields` is the native module's own reader of a request's fields, so that both sides of
// the door read a request alike.
function makeGetResourceSync(resourceSync, requestFields) {
  // Where the native leaves a hit's bytes; emptied at once so that it holds nothing between calls.
  // The native also remembers on it the last header that it sent in full, which is `lastHeader`.
  const slot = [undefined];
  let lastHeader = {};
  return function getResourceSyncNative(request) {
    if (arguments.length === 0) return undefined;
    const fields = typeof request === 'object' && request !== null ? requestFields(request) : EMPTY_REQUEST;
    const answer = resourceSync(fields, slot);
    // Failures and unusual headers come as the whole object, made by the native.
    if (typeof answer !== 'string') return answer;
    const data = slot[0];
    slot[0] = undefined;
    const lead = answer.charCodeAt(0) - ZERO;
    const is404 = (lead & IS_404) !== 0;
    // A copy of the kept header: the caller owns what it is given and may change it. Spreading an
    // object of the same shape is far cheaper than cutting the text again.
    if ((lead & SAME_HEADER) !== 0) {
      return { data: data, md5: answer.slice(1), header: { ...lastHeader }, error: undefined, is404: is404 };
    }
    const at = answer.indexOf('\0', 1);
    const header = headerOf(answer, at);
    lastHeader = { ...header };
    return { data: data, md5: at < 0 ? answer.slice(1) : answer.slice(1, at), header: header, error: undefined, is404: is404 };
  };
}

module.exports = { makeGetResourceSync };
