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
