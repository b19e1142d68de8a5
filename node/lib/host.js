'use strict';
// The host object that the package gives the library (setProxyNative), once per process: every
// request of the library goes through the cache's `fetch`, bodies the library wants in a file are
// streamed to it, and the library's notices (packs updated, the queue finished, records, state
// changes) go to the cache that is open. After close() nothing is fetched any more.
const fs = require('fs');
const { Readable } = require('stream');
const { pipeline } = require('stream/promises');

const { FerritError } = require('./errors');

// The library marks each of its requests with what it asks for.
const kReferHeader = 'f-refer';
const kReferConfig = 'ferrit_config';
// The global configuration's path below the server, as the library asks for it.
const kGlobalConfigPath = '/fconfig/';
// Transport failures handed back to the library: the request failed, no cache is open, or the
// cache sends no requests (it has no server).
const kTransportFailed = 1;
const kClosed = 2;
const kRefused = 3;
const kNotFound = 404;
const kMsPerSecond = 1000;

// The words of a failed fetch: the network's reason (error.cause) before the fetch's own.
function failureWords(error) {
  const cause = error?.cause;
  if (cause && typeof cause.message === 'string' && cause.message) return cause.message;
  if (cause && typeof cause.code === 'string') return cause.code;
  return error?.message || String(error);
}

function headersOf(response) {
  const header = {};
  const headers = response.headers;
  if (headers && typeof headers.forEach === 'function') {
    headers.forEach((value, name) => {
      header[name] = String(value);
    });
  } else if (headers && typeof headers === 'object') {
    for (const [name, value] of Object.entries(headers)) header[name] = String(value);
  }
  return header;
}

// Writes the body to `file` as it arrives, never whole in memory.
async function streamTo(response, file) {
  const body = response.body;
  if (body && typeof body.getReader === 'function') {
    await pipeline(Readable.fromWeb(body), fs.createWriteStream(file));
  } else if (body && typeof body.pipe === 'function') {
    await pipeline(body, fs.createWriteStream(file));
  } else {
    await fs.promises.writeFile(file, Buffer.from(await response.arrayBuffer()));
  }
}

async function contentOf(response) {
  return Buffer.from(await response.arrayBuffer());
}

// natives: the package's exports; key: {publicKey, insecureNoSignatureCheck}. The object's
// `attach(session)` points it at the open cache's session (fetch, app and the event sinks),
// `detach()` at none.
function makeHostObject(natives, key) {
  let session = null;
  const host = {
    sendRequest(request, id) {
      send(natives, session, request, id);
    },
    createError(code, message) {
      return new FerritError(String(message), { code });
    },
    onPackUpdated(name) {
      session?.packUpdated(name);
    },
    onQueueFinished(count) {
      session?.queueFinished(count);
    },
    sendEvent(record) {
      session?.record(record);
    },
    onStateChanged(reportText) {
      session?.stateChanged(reportText);
    },
  };
  if (key.publicKey !== undefined) host.publicKey = key.publicKey;
  if (key.insecureNoSignatureCheck) host.insecureNoSignatureCheck = true;
  Object.defineProperty(host, 'attach', { value: (next) => { session = next; } });
  Object.defineProperty(host, 'detach', { value: () => { session = null; } });
  return host;
}

async function send(natives, session, request, id) {
  const url = request?.url;
  const answer = (response, error) => natives.onSendRequestFinishedNative(id, response, error);
  if (!session) {
    answer(undefined, { code: kClosed, message: `${url}: the cache is closed; nothing is fetched` });
    return;
  }
  const refusal = session.refusal(url);
  if (refusal) {
    answer(undefined, { code: kRefused, message: refusal });
    return;
  }
  const header = request.header ?? {};
  const isConfig = header[kReferHeader] === kReferConfig;
  const init = { headers: header };
  if (request.timeout > 0) init.signal = AbortSignal.timeout(request.timeout * kMsPerSecond);
  try {
    const response = await session.fetch(url, init);
    const statusCode = response.status;
    if (isConfig) session.configAnswered(url, statusCode === kNotFound, url.includes(kGlobalConfigPath));
    if (request.tempFilePath) {
      await streamTo(response, request.tempFilePath);
      answer({ statusCode, header: headersOf(response) });
    } else {
      answer({ statusCode, header: headersOf(response), content: await contentOf(response) });
    }
  } catch (error) {
    // The library's message names the URL already.
    answer(undefined, { code: kTransportFailed, message: failureWords(error) });
  }
}

module.exports = { makeHostObject, failureWords };
