'use strict';
// getResourceSyncNative as the package exports it: the request is read and the response object
// built here, in script, around the module's "resourceSync", so that a hit crosses the boundary
// with that one call. The native getResourceSyncNative does the same work by calling back into
// script twice (once to read the request, once to build the object), and each of those calls
// from native code costs more than the work it does.

// The request object's fields: "url", "traceId", "packName", "packVersion", then the header's
// string members (own and inherited, enumerable, as for...in lists them) in name, value pairs. A
// getter that throws reads as absent, and a header whose names cannot be listed has none. They
// come as one text: "traceId" as a 32-bit number (0 when it is none), then each field after a NUL,
// empty when it is no string; a field that holds a NUL of its own cannot be told apart that way,
// and the fields then come as an array of the values as they are. The native module's own
// reader is this same function.
function requestFields(request) {
  const fields = [undefined, undefined, undefined, undefined];
  let header;
  try { fields[0] = request.url; } catch (e) {}
  try { header = request.header; } catch (e) {}
  if (typeof header === 'object' && header !== null) {
    try {
      for (const name in header) {
        let value;
        try { value = header[name]; } catch (e) { continue; }
        if (typeof value === 'string') fields.push(name, value);
      }
    } catch (e) {
      fields.length = 4;
    }
  }
  try { fields[1] = request.traceId; } catch (e) {}
  try { fields[2] = request.packName; } catch (e) {}
  try { fields[3] = request.packVersion; } catch (e) {}
  let text = String(typeof fields[1] === 'number' ? fields[1] | 0 : 0);
  for (let i = 0; i < fields.length; ++i) {
    const field = fields[i];
    if (typeof field !== 'string') {
      text += '\0';
    } else if (field.indexOf('\0') >= 0) {
      return fields;
    } else {
      text += '\0' + field;
    }
  }
  return text;
}

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
function makeGetResourceSync(resourceSync) {
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
