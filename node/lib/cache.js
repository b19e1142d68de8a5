'use strict';
// open() and the cache it answers: the library's start-up order run for the host, its answers as
// plain values, and what it does as events. The library holds one root per process and has no
// teardown, so the package keeps one attachment per process: close() detaches the cache (events
// stop, the client goes to the background) and a later open() of the same root attaches again.
const crypto = require('crypto');
const EventEmitter = require('events');
const fs = require('fs');

const { FerritError, Codes, keyRefusal, badOption, fromLibrary } = require('./errors');
const { makeHostObject } = require('./host');
const { normalize, checkLogLevel, Env, Network } = require('./options');

// Bit 0 of setup's mode: the host calls startUpdateNative itself.
const kModeAutoUpdate = 0;
const kModeHostStartsUpdate = 1;
// The codes of the status report that tell how far start-up has come, with the state each one
// leaves the library in, earliest first; none of them means it is updating.
const kLifecycle = [
  ['NO_PROXY', 'loaded'],
  ['NOT_SETUP', 'proxied'],
  ['NOT_UPDATE_CONFIG', 'set up'],
  ['NOT_START_UPDATE', 'configured'],
];
const kUpdating = 'updating';
const kWritable = 'writable';
// The levels of the entries the package itself logs.
const kLevelWarning = 2;
const kHostTag = 'Ferrit/Host';

// Symbol-keyed doors of the addon beside its eighteen natives.
const Doors = Object.freeze({
  whenReady: 'ferritcore.whenReady',
  logTo: 'ferritcore.logTo',
  logLevel: 'ferritcore.logLevel',
  wantRecords: 'ferritcore.wantRecords',
  hostKey: 'ferritcore.hostKey',
});

// What open() needs of the addon: `natives` are the package's exports (the key-checking
// setProxyNative and `inspect` among them), `addon` the module itself for its symbol-keyed doors.
let natives = null;
let addon = null;
// The process's one attachment: {root, rawFiles, host, keyBytes}, from the first open() on.
let attachment = null;
// The cache that is open (or opening), if any.
let current = null;

function door(name, feature) {
  const fn = addon[Symbol.for(Doors[name])];
  if (typeof fn !== 'function') {
    throw new FerritError(`ferritcore: ${feature} needs Symbol.for('${Doors[name]}'), which this build of ` +
      'ferritcore.node does not have; build the addon from the same sources as the package',
    { code: Codes.notSupported });
  }
  return fn;
}

function hasDoor(name) {
  return typeof addon[Symbol.for(Doors[name])] === 'function';
}

// The 32 bytes of an Ed25519 public key in any form the host object takes, or undefined when the
// form is not one that can be compared here (the library checks it all the same).
function keyBytes(key) {
  try {
    let keyObject;
    if (key instanceof crypto.KeyObject) keyObject = key;
    else if (typeof key === 'string' && key.includes('-----BEGIN')) keyObject = crypto.createPublicKey(key);
    else if (Buffer.isBuffer(key) && key.includes('-----BEGIN')) keyObject = crypto.createPublicKey(key);
    else {
      const bytes = typeof key === 'string' ? Buffer.from(key, 'base64') : Buffer.from(ArrayBuffer.isView(key) ?
        Buffer.from(key.buffer, key.byteOffset, key.byteLength) : key);
      if (bytes.length === 32) return bytes;
      keyObject = crypto.createPublicKey({ key: bytes, format: 'der', type: 'spki' });
    }
    return Buffer.from(keyObject.export({ format: 'jwk' }).x, 'base64url');
  } catch {
    return undefined;
  }
}

// Holds the event loop open while the library works on its own threads for a pending call.
class KeepAlive {
  #count = 0;
  #handle = null;
  hold() {
    if (this.#count++ === 0) this.#handle = setInterval(() => {}, 1 << 30);
    let released = false;
    return () => {
      if (released) return;
      released = true;
      if (--this.#count === 0) {
        clearInterval(this.#handle);
        this.#handle = null;
      }
    };
  }
  async around(promise) {
    const release = this.hold();
    try {
      return await promise;
    } finally {
      release();
    }
  }
}
const keepAlive = new KeepAlive();

function whenReady() {
  const fn = door('whenReady', 'open()');
  return keepAlive.around(new Promise((resolve) => fn(() => resolve())));
}

// The package's `inspect` with its failures as FerritError values.
async function inspectCommand(command, params) {
  try {
    return await keepAlive.around(natives.inspect(command, params ?? {}));
  } catch (error) {
    const code = error?.code ?? Codes.inspect;
    throw new FerritError(`ferritcore: inspector command ${command} failed: ${error?.message ?? error}`,
      { code, reason: error?.message ?? String(error), cause: error });
  }
}

function lifecycleState(codes) {
  for (const [code, state] of kLifecycle) if (codes.includes(code)) return state;
  return kUpdating;
}

function packsOf(fconfig) {
  const packs = {};
  for (const [name, record] of Object.entries(fconfig?.packs ?? {})) {
    packs[name] = { configured: Number(record?.s ?? 0), installed: Number(record?.installedSeq ?? 0) };
  }
  return packs;
}

// The Status of an info report and the configuration in force, with the host's own problems.
function statusOf(info, fconfig, hostProblems) {
  const codes = Array.isArray(info?.error) ? info.error.map(String) : [];
  return {
    state: lifecycleState(codes),
    storage: typeof info?.storage === 'string' ? info.storage : kWritable,
    version: fconfig?.v === undefined ? '' : String(fconfig.v),
    problems: [...codes, ...hostProblems],
    packs: packsOf(fconfig),
  };
}

function checkUrl(url, what = 'url') {
  if (typeof url !== 'string' || url.length === 0) {
    throw new FerritError(`ferritcore: ${what} must be a non-empty string`, { code: Codes.badOption });
  }
}

function requestOf(url, options) {
  checkUrl(url);
  if (options !== undefined && (options === null || typeof options !== 'object')) {
    throw new FerritError('ferritcore: the options of get() must be an object { headers?, referrer? }', { code: Codes.badOption });
  }
  const header = {};
  for (const [name, value] of Object.entries(options?.headers ?? {})) header[name] = String(value);
  if (options?.referrer !== undefined) header.Referer = String(options.referrer);
  return { url, header };
}

function answerOf(url, response) {
  const error = response?.error;
  if (error === undefined && response && !response.is404) {
    return {
      hit: true, url, status: 200, headers: { ...(response.header ?? {}) },
      body: response.data === undefined ? Buffer.alloc(0) : Buffer.from(response.data), md5: response.md5 ?? '',
    };
  }
  const failure = error === undefined ?
    new FerritError(`${url}: not in any installed pack`, { code: 0 }) : fromLibrary(error);
  return {
    hit: false, url, is404: Boolean(response?.is404), code: typeof failure.code === 'number' ? failure.code : 0,
    reason: failure.reason, error: failure,
  };
}

function closedError(what) {
  return new FerritError(`ferritcore: ${what}: the cache is closed; open() it again`, { code: Codes.closed });
}

class FerritCache extends EventEmitter {
  #settings;
  #closed = false;
  #logSink = null;
  #records = false;
  #lastStateKey = '';
  #stateChain = Promise.resolve();
  // The host's own problems, in words, by what they are about.
  #hostProblems = new Map();

  constructor(settings) {
    super();
    this.#settings = settings;
    // Listeners switch the library's work on and off: the log leaves stderr for the "log"
    // event while somebody listens, and records are built only while somebody wants them.
    this.on('newListener', (event) => {
      if (this.#closed) return;
      if (event === 'log' && this.listenerCount('log') === 0) this.#logToEvents(true);
      if (event === 'record' && this.listenerCount('record') === 0) this.#wantRecords(true);
    });
    this.on('removeListener', (event) => {
      if (this.#closed) return;
      if (event === 'log' && this.listenerCount('log') === 0) this.#logToEvents(false);
      if (event === 'record' && this.listenerCount('record') === 0) this.#wantRecords(false);
    });
    if (!settings.server) {
      this.#hostProblems.set('server', 'no server is set: the library requests nothing and serves only ' +
        'the packs already installed (give open() the option "server", the address of a published tree)');
    }
    if (settings.server && settings.env !== 'release') {
      this.#hostProblems.set('env', `env "${settings.env}" reads the addresses built into the library, ` +
        'not "server", which is the release environment\'s');
    }
  }

  #logToEvents(on) {
    const logTo = door('logTo', 'the "log" event');
    if (on) {
      this.#logSink = (text) => {
        let entry;
        try {
          entry = JSON.parse(text);
        } catch {
          entry = { level: 1, tag: kHostTag, event: 'unreadableLogEntry', message: String(text) };
        }
        if (!this.#closed) this.emit('log', entry);
      };
      logTo(this.#logSink);
    } else if (this.#logSink) {
      this.#logSink = null;
      logTo(null);
    }
  }

  #wantRecords(on) {
    door('wantRecords', 'the "record" event')(on);
    this.#records = on;
  }

  // The package's own log entries go where the library's go: the "log" event or stderr.
  #log(level, event, fields) {
    if (level > this.#currentLevel()) return;
    const entry = { level, tag: kHostTag, event, ...fields };
    if (this.listenerCount('log') > 0) this.emit('log', entry);
    else process.stderr.write(`${JSON.stringify(entry)}\n`);
  }

  #currentLevel() {
    return hasDoor('logLevel') ? door('logLevel', 'logLevel')() : this.#settings.logLevel;
  }

  // ---- What the host object hands on (see host.js).
  get fetch() {
    return this.#settings.fetch;
  }

  // Why the request for `url` is not sent, or undefined when it is: without a server the cache
  // asks nobody, whatever addresses the library was built with.
  refusal(url) {
    if (this.#settings.server || this.#settings.packs) return undefined;
    return `${url}: not requested: open() was given no "server", so the cache requests nothing`;
  }

  configAnswered(url, notFound, global) {
    const key = `config ${url}`;
    if (!notFound) {
      if (this.#hostProblems.delete(key)) this.#refreshState();
      return;
    }
    const s = this.#settings;
    const message = global ?
      `no configuration is published for app key "${s.appKey}", app version "${s.appVersion}", locale ` +
      `"${s.locale}" at ${url}; the tree is published for another locale or app version?` :
      `no pack configuration is published at ${url}; was the tree published completely?`;
    const known = this.#hostProblems.has(key);
    this.#hostProblems.set(key, message);
    this.#log(kLevelWarning, 'configNotPublished', { message, url, appKey: s.appKey, appVersion: s.appVersion, locale: s.locale });
    if (!known) this.#refreshState();
  }

  packUpdated(name) {
    if (!this.#closed) this.emit('packUpdated', String(name));
  }

  queueFinished(count) {
    if (!this.#closed) this.emit('queueFinished', Number(count));
  }

  record(record) {
    if (this.#closed || !this.#records) return;
    this.emit('record', {
      name: String(record?.name ?? ''), dimensions: { ...(record?.dimensions ?? {}) },
      measures: { ...(record?.measures ?? {}) },
    });
  }

  stateChanged(reportText) {
    let info;
    try {
      info = JSON.parse(reportText);
    } catch {
      return;
    }
    this.#refreshState(info);
  }

  // Emits "state" when the Status differs from the last one emitted; in order of the calls.
  #refreshState(info) {
    this.#stateChain = this.#stateChain.then(async () => {
      if (this.#closed) return;
      const [report, fconfig] = await Promise.all([
        info ?? inspectCommand('FerritDev.info'), inspectCommand('FerritDev.fconfig')]);
      const status = statusOf(report, fconfig, [...this.#hostProblems.values()]);
      const key = JSON.stringify([status.state, status.storage, status.problems]);
      if (key === this.#lastStateKey || this.#closed) return;
      this.#lastStateKey = key;
      this.emit('state', status);
    }).catch(() => {});
  }

  // The state as open() found it, so that "state" tells only changes.
  async noteInitialState() {
    const status = await this.status();
    this.#lastStateKey = JSON.stringify([status.state, status.storage, status.problems]);
  }

  // ---- The host API.
  get closed() {
    return this.#closed;
  }

  get root() {
    return this.#settings.root;
  }

  get(url, options) {
    if (this.#closed) return Promise.reject(closedError('get'));
    let request;
    try {
      request = requestOf(url, options);
    } catch (error) {
      return Promise.reject(error);
    }
    return keepAlive.around(new Promise((resolve) => {
      natives.getResourceNative(request, (response) => resolve(answerOf(url, response)));
    }));
  }

  getSync(url, options) {
    if (this.#closed) throw closedError('getSync');
    return answerOf(url, natives.getResourceSyncNative(requestOf(url, options)));
  }

  prefetch(urls) {
    if (this.#closed) throw closedError('prefetch');
    if (!Array.isArray(urls) || urls.some((url) => typeof url !== 'string' || url.length === 0)) {
      throw new FerritError('ferritcore: prefetch takes an array of URLs (non-empty strings)', { code: Codes.badOption });
    }
    if (urls.length > 0) natives.prefetchNative(urls);
  }

  // Fetches the newest configuration and installs each configured pack whose installed version
  // differs; with a name, installs that one pack.
  async update(name) {
    if (this.#closed) throw closedError('update');
    if (name !== undefined) {
      checkUrl(name, 'the pack name');
      return this.#installPack(name);
    }
    try {
      await inspectCommand('FerritDev.update');
    } catch (error) {
      const reason = error.reason;
      const where = this.#settings.server ? ` from ${this.#settings.server}` : ' (no server is set)';
      throw new FerritError(`ferritcore: the configuration could not be fetched${where}: ${reason}`,
        { code: typeof error.code === 'number' ? error.code : Codes.noConfiguration, reason, cause: error });
    }
    const fconfig = await inspectCommand('FerritDev.fconfig');
    const names = Object.entries(packsOf(fconfig))
      .filter(([, pack]) => pack.configured !== pack.installed).map(([packName]) => packName);
    const packs = await Promise.all(names.map((packName) => this.#installPack(packName)));
    return { version: fconfig?.v === undefined ? '' : String(fconfig.v), packs };
  }

  #installPack(name) {
    return keepAlive.around(new Promise((resolve) => {
      natives.updatePackNative({ name }, (packName, error) => {
        const result = { name: typeof packName === 'string' && packName ? packName : name };
        if (error !== undefined && error !== null) result.error = fromLibrary(error);
        resolve(result);
      });
    }));
  }

  startUpdate() {
    if (this.#closed) throw closedError('startUpdate');
    natives.startUpdateNative();
  }

  setNetwork(status) {
    if (this.#closed) throw closedError('setNetwork');
    if (typeof status !== 'string' || !Object.hasOwn(Network, status)) {
      throw new FerritError(`ferritcore: setNetwork takes one of ${Object.keys(Network).map((k) => `'${k}'`).join(', ')}`,
        { code: Codes.badOption });
    }
    natives.setNetworkStatusNative(Network[status]);
  }

  setActive(active) {
    if (this.#closed) throw closedError('setActive');
    if (typeof active !== 'boolean') {
      throw new FerritError('ferritcore: setActive takes true (foreground) or false (background)', { code: Codes.badOption });
    }
    if (active) natives.clientActivedNative();
    else natives.clientDeactivedNative();
  }

  async status() {
    if (this.#closed) throw closedError('status');
    const [info, fconfig] = await Promise.all([inspectCommand('FerritDev.info'), inspectCommand('FerritDev.fconfig')]);
    return statusOf(info, fconfig, [...this.#hostProblems.values()]);
  }

  inspect(command, params) {
    if (this.#closed) return Promise.reject(closedError('inspect'));
    if (typeof command !== 'string' || command.length === 0) {
      return Promise.reject(new FerritError('ferritcore: inspect takes a command name such as "FerritDev.info"', { code: Codes.badOption }));
    }
    return inspectCommand(command, params);
  }

  get logLevel() {
    return door('logLevel', 'logLevel')();
  }

  set logLevel(level) {
    checkLogLevel(level, 'logLevel');
    door('logLevel', 'logLevel')(level);
  }

  // Events stop, the log goes back to stderr, the client goes to the background; resolves once
  // the library has taken that, and leaves nothing that keeps the process alive.
  async close() {
    if (this.#closed) return;
    if (this.#logSink) this.#logToEvents(false);
    if (this.#records) this.#wantRecords(false);
    this.#closed = true;
    natives.clientDeactivedNative();
    attachment.host.detach();
    if (current === this) current = null;
    await whenReady();
  }
}

// Runs the library's start-up order for `options` and resolves with the open cache.
async function open(options) {
  const settings = normalize(options);
  if (current) {
    throw new FerritError(`ferritcore.open: a cache is already open at ${current.root}; close() it first ` +
      '(the library holds one root per process)', { code: Codes.alreadyOpen });
  }
  if (attachment && attachment.root !== settings.root) {
    throw new FerritError(`ferritcore.open: this process has opened the cache at ${attachment.root}, and the ` +
      `library keeps one root per process until it exits; open ${attachment.root} again, or open ` +
      `${settings.root} in another process`, { code: Codes.otherRoot });
  }
  const key = { publicKey: settings.publicKey, insecureNoSignatureCheck: settings.insecureNoSignatureCheck };
  const refusal = keyRefusal(door('hostKey', 'open()')(key));
  if (refusal) throw refusal;
  if (attachment) {
    const before = attachment.keyBytes;
    const now = key.publicKey === undefined ? undefined : keyBytes(key.publicKey);
    if ((before === undefined) !== (now === undefined) || (before && now && !before.equals(now))) {
      throw new FerritError('ferritcore.open: this process opened the cache with another publisher key (or ' +
        'none), which the library keeps until the process exits; open with the same key',
      { code: Codes.badPublicKey });
    }
  }
  door('whenReady', 'open()');
  if (settings.logLevel !== undefined && options.logLevel !== undefined) door('logLevel', 'the option logLevel');

  const cache = new FerritCache(settings);
  current = cache;
  try {
    if (settings.rawFiles !== undefined && !fs.existsSync(settings.rawFiles)) {
      throw badOption('rawFiles', 'must be an existing folder', settings.rawFiles);
    }
    await fs.promises.mkdir(settings.root, { recursive: true });
    natives.setEnvNative(Env[settings.env]);
    natives.setLocaleNative(settings.locale);
    natives.setNetworkStatusNative(Network[settings.network]);
    const defaults = {};
    if (settings.server) defaults.configPrefixRelease = settings.server;
    if (settings.packs) {
      defaults.zipPrefixRelease = settings.packs;
      defaults.ACacheZipPrefixRelease = settings.packs;
    }
    if (settings.updateInterval !== undefined) defaults.configUpdateInterval = settings.updateInterval;
    // The library reads the channel's configuration below the server; the packs stay shared.
    if (settings.channel !== undefined) defaults.channel = settings.channel;
    natives.setDefaultConfigNative(defaults);
    if (hasDoor('logLevel')) door('logLevel', 'logLevel')(settings.logLevel);
    const reattach = attachment !== null;
    if (!reattach) {
      const host = makeHostObject(natives, key);
      attachment = { root: settings.root, host, keyBytes: key.publicKey === undefined ? undefined : keyBytes(key.publicKey) };
    }
    attachment.host.attach(cache);
    if (natives.setProxyNative(attachment.host, settings.root, settings.rawFiles ?? null) !== true) {
      throw new FerritError('ferritcore.open: the library refused the host object', { code: Codes.badOption });
    }
    natives.setupNative(settings.appKey, settings.appVersion, settings.autoUpdate ? kModeAutoUpdate : kModeHostStartsUpdate);
    // A repeated setup takes the mode again; the client comes back to the foreground.
    if (reattach) natives.clientActivedNative();
    await whenReady();
    await cache.noteInitialState();
    return cache;
  } catch (error) {
    if (current === cache) current = null;
    attachment?.host.detach();
    throw error;
  }
}

// Binds open() to the package's exports and the addon.
function bind(packageExports, module) {
  natives = packageExports;
  addon = module;
  return open;
}

module.exports = { bind, FerritCache, statusOf, lifecycleState };
