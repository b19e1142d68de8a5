'use strict';
// What the bridge's decoders make of the host's values, seen through the test-only probe module.
const test = require('node:test');
const assert = require('node:assert/strict');
const path = require('path');

const probePath =
  process.env.FERRITCORE_PROBE || path.join(__dirname, '..', '..', 'build', 'node', 'ferritcore_probe.node');
const probe = require(probePath);

test('DecodeTest.ResponseWithoutStatusCodeCountsAs200', () => {
  assert.equal(probe.decodeProxyResponse({ content: 'x' }, false).statusCode, 200);
  assert.equal(probe.decodeProxyResponse({ statusCode: '404', content: 'x' }, false).statusCode, 200);
  assert.equal(probe.decodeProxyResponse({ statusCode: 304 }, false).statusCode, 304);
  // Not an object: the empty response, which is a success too.
  assert.deepEqual(probe.decodeProxyResponse('nothing', true), { statusCode: 200, header: {}, content: '' });
});

test('DecodeTest.ConfigResponseWithHeadersKeepsOnlyContentLength', () => {
  const response = {
    statusCode: 200,
    header: { 'content-length': '12', 'content-type': 'text/plain', etag: 'abc' },
    content: 'hello world!',
  };
  assert.deepEqual(probe.decodeProxyResponse(response, false).header, { 'Content-Length': '12' });
  // An empty length is not kept.
  assert.deepEqual(probe.decodeProxyResponse({ header: { 'content-length': '' } }, false).header, {});
  // A request that wants headers keeps them all, as strings only.
  assert.deepEqual(probe.decodeProxyResponse({ header: { a: '1', b: 2 } }, true).header, { a: '1' });
});

test('DecodeTest.ContentIsTheBytesOfStringsAndBuffers', () => {
  assert.equal(probe.decodeProxyResponse({ content: Buffer.from('buf') }, false).content, 'buf');
  assert.equal(probe.decodeProxyResponse({ content: new TextEncoder().encode('u8') }, false).content, 'u8');
  assert.equal(probe.decodeProxyResponse({ content: new TextEncoder().encode('ab').buffer }, false).content, 'ab');
  const view = new Uint8Array(Buffer.from('xxsliceyy')).subarray(2, 7);
  assert.equal(probe.decodeProxyResponse({ content: view }, false).content, 'slice');
  assert.equal(probe.decodeProxyResponse({ content: 42 }, false).content, '');
});

test('DecodeTest.ErrorNeedsNonZeroCodeAndMessage', () => {
  assert.deepEqual(probe.decodeProxyError({ code: 5, message: 'down' }), { code: 5, message: 'down' });
  assert.equal(probe.decodeProxyError({ code: 0, message: 'x' }).code, 0);
  assert.equal(probe.decodeProxyError({ code: 5 }).code, 0);
  assert.equal(probe.decodeProxyError({ code: '5', message: 'x' }).code, 0);
  assert.equal(probe.decodeProxyError(new Error('plain')).code, 0);
  assert.equal(probe.decodeProxyError(undefined).code, 0);
});

test('DecodeTest.TraceIdIsReadTwice', () => {
  const asText = probe.decodeRequest({ url: 'https://a.example.com/', traceId: 'trace-1' });
  assert.equal(asText.parentId, 'trace-1');
  assert.equal(asText.type, 0);
  const asNumber = probe.decodeRequest({
    url: 'https://a.example.com/',
    traceId: 1,
    packName: 'uni',
    packVersion: '2',
  });
  assert.equal(asNumber.parentId, '');
  assert.equal(asNumber.type, 1);
  assert.equal(asNumber.packName, 'uni');
  assert.equal(asNumber.packVersion, '2');
});

test('DecodeTest.RefererHeaderIsTheReferrer', () => {
  const request = probe.decodeRequest({
    url: 'https://a.example.com/x.js',
    header: { Referer: 'https://a.example.com/', Accept: 'text/html', Bad: 3 },
  });
  assert.equal(request.referrer, 'https://a.example.com/');
  assert.deepEqual(request.header, { Referer: 'https://a.example.com/', Accept: 'text/html' });
});

test('DecodeTest.NonObjectRequestHasEmptyUrl', () => {
  for (const value of [undefined, null, 'https://a.example.com/', 7, true]) {
    assert.equal(probe.decodeRequest(value).url, '');
  }
  // Arrays are objects without the keys.
  assert.equal(probe.decodeRequest(['https://a.example.com/']).url, '');
});

test('DecodeTest.GettersThatThrowReadAsAbsent', () => {
  const request = probe.decodeRequest({
    get url() { throw new Error('no'); },
    header: { get Referer() { throw new Error('no'); }, Accept: 'a/b' },
    get traceId() { throw new Error('no'); },
  });
  assert.equal(request.url, '');
  assert.deepEqual(request.header, { Accept: 'a/b' });
  assert.equal(request.type, 0);
});

test('DecodeTest.PackDescriptorRules', () => {
  assert.deepEqual(probe.decodePackRequest({ name: 'shop', info: 'i', traceId: 't', progressId: 4 }), {
    name: 'shop',
    info: 'i',
    traceId: 't',
    progressId: 4,
  });
  assert.deepEqual(probe.decodePackRequest('shop'), { name: '', info: '', traceId: '', progressId: 0 });
  assert.equal(probe.decodePackRequest({ name: 'shop', progressId: '4' }).progressId, 0);
});

test('DecodeTest.TextsOfEveryLengthAroundTheShortBufferComeBackWhole', () => {
  // Short texts are read in one pass into a fixed buffer, longer ones in two: each length around
  // that buffer, with characters of one to four bytes falling on its edge, must come back whole.
  for (const unit of ['a', 'é', '中', '😀']) {
    for (let length = 240; length <= 270; ++length) {
      let url = 'https://a.example.com/';
      while (Buffer.byteLength(url) + Buffer.byteLength(unit) <= length) url += unit;
      const request = probe.decodeRequest({ url, header: { 'X-Long': url } });
      assert.equal(request.url, url);
      assert.equal(request.header['X-Long'], url);
    }
  }
});

test('DecodeTest.RequestFieldsThatHoldANulComeWhole', () => {
  // A NUL in a field cannot cross in the one text the fields usually take: they come another way,
  // and read the same.
  const request = probe.decodeRequest({
    url: 'https://a.example.com/a\0b.js',
    header: { 'X-N\0ame': 'v\0alue', Referer: 'https://a.example.com/\0', Accept: '' },
    traceId: 'trace\0id',
    packName: 'p\0',
    packVersion: '\0',
  });
  assert.equal(request.url, 'https://a.example.com/a\0b.js');
  assert.deepEqual(request.header, { 'X-N\0ame': 'v\0alue', Referer: 'https://a.example.com/\0', Accept: '' });
  assert.equal(request.referrer, 'https://a.example.com/\0');
  assert.equal(request.parentId, 'trace\0id');
  assert.equal(request.packName, 'p\0');
  assert.equal(request.packVersion, '\0');
  // Empty names and values, and characters of every width, cross in the one text.
  const plain = probe.decodeRequest({ url: 'https://a.example.com/é中😀', header: { '': '', 'X-É': '😀', Empty: '' } });
  assert.equal(plain.url, 'https://a.example.com/é中😀');
  assert.deepEqual(plain.header, { '': '', 'X-É': '😀', Empty: '' });
  assert.equal(plain.packName, '');
});

test('DecodeTest.TraceIdNumberIsCutTo32Bits', () => {
  const typeOf = (traceId) => probe.decodeRequest({ url: 'https://a.example.com/', traceId }).type;
  assert.equal(typeOf(-1), -1);
  assert.equal(typeOf(2 ** 32 + 5), 5);
  assert.equal(typeOf(2 ** 31), -(2 ** 31));
  assert.equal(typeOf(7.9), 7);
  assert.equal(typeOf(NaN), 0);
  assert.equal(typeOf(Infinity), 0);
  assert.equal(typeOf('12'), 0);
  assert.equal(typeOf(undefined), 0);
});

test('EncodeTest.ResponseHeaderWithUnusualBytesComesWhole', () => {
  const header = {
    'Content-Type': 'text/plain;charset=UTF-8',
    'X-Wide': 'é中😀',
    'X-Empty': '',
    '': 'no name',
    'X-Spaces': '  a  b  ',
    'X-Controls': '\t\r\n\x01\x7f',
  };
  const response = probe.encodeResponse('0123456789abcdef0123456789abcdef', header, 'body', true);
  assert.deepEqual(Object.keys(response), ['data', 'md5', 'header', 'error', 'is404']);
  assert.equal(response.md5, '0123456789abcdef0123456789abcdef');
  assert.deepEqual(response.header, header);
  assert.equal(response.error, undefined);
  assert.equal(response.is404, false);
  // No header at all, and an empty MD5.
  const bare = probe.encodeResponse('', {}, 'body', true);
  assert.equal(bare.md5, '');
  assert.deepEqual(bare.header, {});
});

test('EncodeTest.ResponseHeaderWithANulComesWhole', () => {
  // The MD5 and the header usually cross as one text cut at NULs; one that holds a NUL of its own
  // takes the other way, and reads the same.
  const header = { 'X-N\0ame': 'v\0alue', 'X-Plain': 'plain', 'X-End': '\0' };
  const response = probe.encodeResponse('md\0five', header, 'body', true);
  assert.equal(response.md5, 'md\0five');
  assert.deepEqual(response.header, header);
  const valueOnly = probe.encodeResponse('0123', { A: 'a\0', B: '' }, 'body', false);
  assert.equal(valueOnly.md5, '0123');
  assert.deepEqual(valueOnly.header, { A: 'a\0', B: '' });
});

test('EncodeTest.BytesComeAsAnArrayBufferOfTheirOwnEitherWay', () => {
  const bytes = Buffer.alloc(16 * 1024 + 3);
  for (let i = 0; i < bytes.length; ++i) bytes[i] = (i * 7) & 0xff;
  // Read into the engine's memory (a hit), and copied from the response's own bytes (the rest).
  for (const inEngineMemory of [true, false]) {
    const { data } = probe.encodeResponse('m', {}, bytes, inEngineMemory);
    assert.ok(data instanceof ArrayBuffer, `inEngineMemory ${inEngineMemory}`);
    assert.equal(data.byteLength, bytes.length);
    assert.ok(Buffer.from(data).equals(bytes));
  }
  // One byte, and none: no bytes is no data at all.
  assert.equal(probe.encodeResponse('m', {}, Buffer.from([9]), true).data.byteLength, 1);
  assert.equal(probe.encodeResponse('m', {}, '', true).data, undefined);
  assert.equal(probe.encodeResponse('m', {}, '', false).data, undefined);
});
