'use strict';
// 10,000 calls of the natives with random arguments (fixed seed): the process survives and every
// native answers with one of its documented kinds of result (setProxyNative may also refuse a host
// object without a usable key with its documented Error).
const test = require('node:test');
const assert = require('node:assert/strict');
const path = require('path');

const { ferrit, tempRoot, random, makeHost } = require('./helpers');

const SEED = 20261123;
const CALLS = 10000;

test('FuzzTest.RandomArgumentsNeverCrash', async (t) => {
  const next = random(SEED);
  const pick = (list) => list[Math.floor(next() * list.length)];
  const root = tempRoot(t);
  const host = makeHost({});
  const hostile = new Proxy({}, {
    get() { throw new Error('trap'); },
    has() { throw new Error('trap'); },
    ownKeys() { throw new Error('trap'); },
    getOwnPropertyDescriptor() { throw new Error('trap'); },
  });
  const makers = [
    () => undefined,
    () => null,
    () => next() < 0.5,
    () => Math.floor(next() * 2 ** 32) - 2 ** 31,
    () => next() * 1e12,
    () => NaN,
    () => String(Math.floor(next() * 1e6)),
    () => 'x'.repeat(Math.floor(next() * 64)),
    () => 'https://r.example.com/' + Math.floor(next() * 100),
    () => [],
    () => ['https://r.example.com/a.js', 7],
    () => ({}),
    () => ({ url: 'https://r.example.com/a.js', header: { Referer: 5 }, traceId: next() < 0.5 ? 1 : 't' }),
    () => ({ name: 'p' + Math.floor(next() * 4), progressId: '3' }),
    () => ({ statusCode: 'x', header: [], content: 12 }),
    () => ({ code: 3, message: 'x' }),
    () => () => {},
    () => () => { throw new Error('host callback'); },
    () => hostile,
    () => Symbol('s'),
    () => BigInt(Math.floor(next() * 1000)),
    () => Buffer.alloc(Math.floor(next() * 32)),
    () => new Uint16Array(3),
  ];
  // The natives only: not inspect, nor the host API above them (open, FerritError).
  const names = Object.keys(ferrit).filter((name) => !['inspect', 'open', 'FerritError'].includes(name));
  // One real proxy first, so that the calls that need one reach the core.
  assert.equal(ferrit.setProxyNative(host, root, ''), true);
  let pending = 0;
  for (let i = 0; i < CALLS; ++i) {
    const name = pick(names);
    const count = Math.floor(next() * 5);
    const args = [];
    for (let j = 0; j < count; ++j) args.push(pick(makers)());
    let result;
    try {
      result = ferrit[name](...args);
    } catch (error) {
      // The one documented throw: a host object without a usable key is refused in words.
      const refused = name === 'setProxyNative' && error instanceof Error &&
        (error.code === 'FERRIT_NO_PUBLIC_KEY' || error.code === 'FERRIT_BAD_PUBLIC_KEY');
      if (!refused) assert.fail(`${name}(${args.map(String).join(', ')}) threw ${error}`);
      continue;
    }
    if (name === 'setProxyNative') assert.equal(typeof result, 'boolean');
    else if (name === 'getAccessAPINative') assert.equal(typeof result, 'bigint');
    else if (name === 'getResourceSyncNative') assert.ok(result === undefined || typeof result === 'object');
    else if (name === 'getACacheRootPathNative') assert.ok(result === undefined || typeof result === 'string');
    else assert.equal(result, undefined, name);
    if (i % 500 === 0) {
      // Let queued work and callbacks run now and then, as a host's loop would.
      pending++;
      await new Promise((resolve) => setImmediate(resolve));
    }
  }
  // The host may still answer its requests; the library answers what it was asked.
  for (const { id } of host.requests) ferrit.onSendRequestFinishedNative(id, { statusCode: 500 });
  assert.ok(pending > 0);
  const still = ferrit.getResourceSyncNative({ url: 'https://r.example.com/a.js' });
  assert.equal(typeof still, 'object');
});
