'use strict';
// The options of open(), checked and given their defaults. Every refusal names the option and
// says what it takes, before anything reaches the library.
const path = require('path');

const { badOption } = require('./errors');

// The library's environments: 0 "Debug", 1 "Daily", 2 "Release".
const Env = Object.freeze({ debug: 0, daily: 1, release: 2 });
// The library's network states.
const Network = Object.freeze({ 'none': 0, 'unrestricted': 1, 'slow-mobile': 2, 'fast-mobile': 3 });
// Log levels: 1 the most severe only .. 5 everything; 0 (from FERRIT_LOG_LEVEL only) nothing.
const kLogLevelMin = 1;
const kLogLevelMax = 5;
const kLogLevelDefault = 2;
// The folder below the server where `ferrit publish` writes the packs by default.
const kPublishedPacksFolder = 'packs/';

const kKnown = new Set(['root', 'appKey', 'appVersion', 'publicKey', 'insecureNoSignatureCheck', 'server',
  'packs', 'locale', 'network', 'env', 'fetch', 'rawFiles', 'updateInterval', 'autoUpdate', 'logLevel', 'channel']);
// A channel's name goes into the configuration's address below the server ("channels/<name>/").
// The same rule as the library's own check, which otherwise reads the default channel instead:
// letters, digits, ".", "_" and "-" (ASCII only), not empty, not starting with ".".
const kChannelCharacter = /^[A-Za-z0-9._-]$/;
function isPlainChannel(name) {
  return name.length > 0 && name[0] !== '.' && [...name].every((c) => kChannelCharacter.test(c));
}

function requireText(options, name) {
  const value = options[name];
  if (typeof value !== 'string' || value.length === 0) throw badOption(name, 'must be a non-empty string', value);
  return value;
}

function optionalText(options, name) {
  const value = options[name];
  if (value === undefined) return undefined;
  if (typeof value !== 'string' || value.length === 0) throw badOption(name, 'must be a non-empty string when given', value);
  return value;
}

function withSlash(address) {
  return address.endsWith('/') ? address : `${address}/`;
}

// An absolute http(s) address, as the host's fetch takes it.
function address(name, text, base) {
  let url;
  try {
    url = base === undefined ? new URL(text) : new URL(text, base);
  } catch {
    throw badOption(name, base === undefined ? 'must be an absolute http or https address' :
      'must be an absolute http or https address, or one relative to "server"', text);
  }
  if (url.protocol !== 'http:' && url.protocol !== 'https:') {
    throw badOption(name, 'must be an http or https address', text);
  }
  return withSlash(url.href);
}

function fromTable(options, name, table, fallback) {
  const value = options[name];
  if (value === undefined) return fallback;
  if (typeof value !== 'string' || !Object.hasOwn(table, value)) {
    throw badOption(name, `must be one of ${Object.keys(table).map((k) => `'${k}'`).join(', ')}`, value);
  }
  return value;
}

// FERRIT_LOG_LEVEL when it holds a level, else the package's default.
function defaultLogLevel() {
  const text = process.env.FERRIT_LOG_LEVEL;
  if (text !== undefined && /^[0-5]$/.test(text.trim())) return Number(text.trim());
  return kLogLevelDefault;
}

function checkLogLevel(value, name = 'logLevel') {
  if (!Number.isInteger(value) || value < kLogLevelMin || value > kLogLevelMax) {
    throw badOption(name, `must be an integer from ${kLogLevelMin} (most severe only) to ${kLogLevelMax} (everything)`, value);
  }
  return value;
}

function defaultLocale() {
  return Intl.DateTimeFormat().resolvedOptions().locale;
}

// Checks `options` and answers the settings open() runs with; throws a FerritError
// "FERRIT_BAD_OPTION" that names the first option it cannot take.
function normalize(options) {
  if (options === null || typeof options !== 'object' || Array.isArray(options)) {
    throw badOption('options', 'must be an object with at least root, appKey, appVersion and publicKey', options);
  }
  for (const name of Object.keys(options)) {
    if (!kKnown.has(name)) {
      throw badOption(name, `is not an option of open(); the options are ${[...kKnown].join(', ')}`, options[name]);
    }
  }
  const root = path.resolve(requireText(options, 'root'));
  const appKey = requireText(options, 'appKey');
  const appVersion = requireText(options, 'appVersion');
  const insecure = options.insecureNoSignatureCheck;
  if (insecure !== undefined && typeof insecure !== 'boolean') {
    throw badOption('insecureNoSignatureCheck', 'must be true or false when given', insecure);
  }
  const serverText = optionalText(options, 'server');
  const server = serverText === undefined ? undefined : address('server', serverText);
  const packsText = optionalText(options, 'packs');
  let packs;
  if (packsText !== undefined) packs = address('packs', packsText, server);
  else if (server !== undefined) packs = new URL(kPublishedPacksFolder, server).href;
  const locale = options.locale === undefined ? defaultLocale() : requireText(options, 'locale');
  const network = fromTable(options, 'network', Network, 'unrestricted');
  const env = fromTable(options, 'env', Env, 'release');
  const fetchFunction = options.fetch === undefined ? globalThis.fetch : options.fetch;
  if (typeof fetchFunction !== 'function') {
    throw badOption('fetch', 'must be a function like globalThis.fetch (Node 18 or later has one)', options.fetch);
  }
  const rawFiles = options.rawFiles === undefined ? undefined : path.resolve(requireText(options, 'rawFiles'));
  const interval = options.updateInterval;
  if (interval !== undefined && !(typeof interval === 'number' && Number.isFinite(interval) && interval > 0)) {
    throw badOption('updateInterval', 'must be a number of milliseconds greater than 0 when given', interval);
  }
  const autoUpdate = options.autoUpdate === undefined ? true : options.autoUpdate;
  if (typeof autoUpdate !== 'boolean') throw badOption('autoUpdate', 'must be true or false', autoUpdate);
  const logLevel = options.logLevel === undefined ? defaultLogLevel() : checkLogLevel(options.logLevel);
  const channel = optionalText(options, 'channel');
  if (channel !== undefined && !isPlainChannel(channel)) {
    throw badOption('channel', 'must be a plain name: letters, digits, ".", "_" and "-", not starting with "."', channel);
  }
  return {
    root, appKey, appVersion, publicKey: options.publicKey, insecureNoSignatureCheck: insecure === true,
    server, packs, locale, network, env, fetch: fetchFunction, rawFiles, updateInterval: interval,
    autoUpdate, logLevel, channel,
  };
}

module.exports = { normalize, checkLogLevel, isPlainChannel, Env, Network, defaultLocale };
