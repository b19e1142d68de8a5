// Type declarations of the package "ferritcore". First the natives, as the addon defines them
// (with `inspect`); the package's own API follows them.
//
// Every native reads its arguments leniently and throws nothing: a required argument that is
// missing or of the wrong type makes most natives return undefined (false for setProxyNative) and
// do nothing. The exceptions are written at each native: getResourceNative and updatePackNative
// still answer their callback when the request or descriptor is not an object, and
// setProxyNative refuses a host object without a usable publisher's key with an Error. Natives
// marked "queued" copy their arguments, hand the work to a worker pool and return at once.
/// <reference types="node" />

/// The error value the library makes when it has no host object to ask, or when the host
/// object's createError is missing or throws.
export interface NativeErrorObject {
  code: number;
  message: string;
}

/// The error value handed back to the host: whatever its createError(code, message) returned, or
/// a NativeErrorObject when there was none to call. `E` is the type of the host's createError
/// result; the library cannot check it, so it is `unknown` unless the host says otherwise.
export type HostErrorValue<E = unknown> = E | NativeErrorObject;

/// What "sendRequest" receives.
export interface ProxyRequestObject {
  url: string;
  /** Seconds; absent when none was given. */
  timeout?: number;
  /** Where the body is to be written; absent when it comes back in memory. */
  tempFilePath?: string;
  header?: Record<string, string>;
}

/// What the host hands back through onSendRequestFinishedNative.
export interface ProxyResponseObject {
  /** 200 when absent or not a number. */
  statusCode?: number;
  header?: Record<string, string>;
  /** The body, when it comes back in memory. */
  content?: string | ArrayBuffer | ArrayBufferView;
}

/// A transport failure: a non-zero integer code and a message. Anything else is success.
export interface ProxyErrorObject {
  code: number;
  message: string;
}

/// A public key object of Node's crypto (`crypto.createPublicKey(...)`), read through its export.
export interface PublicKeyObject {
  readonly type: string;
  export(options: { format: 'der'; type: 'spki' }): unknown;
}

/// The publisher's Ed25519 public key in any of the forms a host may hold it: the PEM text of the
/// public key file that `ferrit keygen` writes, or the Buffer that fs.readFileSync gives of it; the
/// 32 raw bytes as bytes or as base64 text; the SubjectPublicKeyInfo in DER (bytes or base64); or
/// a public KeyObject.
export type PublisherKey = string | ArrayBuffer | ArrayBufferView | PublicKeyObject;

/// A performance record, as the host object's sendEvent receives it.
export interface PerformanceRecord {
  name: string;
  dimensions: Record<string, string>;
  measures: Record<string, number>;
}

/// The host's bridge object, given to setProxyNative. `E` is what its createError returns.
export interface HostBridge<E = unknown> {
  /**
   * The publisher's Ed25519 public key. Every signed resource list ("app-res.hvc" of a pack) and
   * every configuration document (the global and each pack's configuration, pushed or shipped in
   * a preload file) is checked with it before the library trusts it: the signature must be the
   * key's Ed25519 signature of the lower-case hexadecimal MD5 of the signed text, as the
   * publisher's tools sign. What does not verify is refused (the library keeps what it had and
   * serves nothing from it) and logged with the words "signature does not verify". Required,
   * unless insecureNoSignatureCheck is true.
   */
  publicKey?: PublisherKey;
  /**
   * Development only: with no publicKey, `true` (exactly) opens the cache with no signature
   * checked at all, so that a tree signed by anybody, or not at all, is served. Ignored when a
   * publicKey is given.
   */
  insecureNoSignatureCheck?: boolean;
  /**
   * Sends a request; the host answers once with onSendRequestFinishedNative(id, ...). What it
   * returns is ignored.
   */
  sendRequest(request: ProxyRequestObject, id: string): unknown;
  /**
   * Makes the error value handed back to the host's callbacks and responses. When it is missing
   * or throws, the library hands back a NativeErrorObject instead.
   */
  createError(code: number, message: string): E;
  /** Optional: a pack was installed or updated (called on the script thread). */
  onPackUpdated?(name: string): void;
  /** Optional: the update queue ran empty after `count` packs. */
  onQueueFinished?(count: number): void;
  /** Optional: a performance record, while records are wanted. */
  sendEvent?(record: PerformanceRecord): void;
  /** Optional: the status report (JSON text) after the lifecycle or storage state changed. */
  onStateChanged?(reportText: string): void;
}

/// A resource request from the host.
export interface ResourceRequestObject {
  url?: string;
  header?: Record<string, string>;
  /** Read twice: as text it is the trace id; as a number it is the request type (1: UniApp). */
  traceId?: string | number;
  packName?: string;
  packVersion?: string;
}

/// The answer to a resource request: exactly these five properties.
export interface ResourceResponseObject<E = unknown> {
  /** The bytes, in memory that the engine allocated and frees by itself; undefined when there are none. */
  data: ArrayBuffer | undefined;
  /** The MD5 of the bytes, in lower-case hexadecimal; "" when there are none. */
  md5: string;
  header: Record<string, string>;
  /**
   * Undefined when the cache answered; else the error value of the host's createError(code,
   * message) (the host goes to the network). A createError that returns undefined makes a miss
   * look like an answer, so hosts check `data` too.
   */
  error: HostErrorValue<E> | undefined;
  is404: boolean;
}

/// The descriptor of updatePackNative.
export interface PackDescriptor {
  name?: string;
  info?: string;
  traceId?: string;
  progressId?: number;
}

/// The host's default settings.
export interface DefaultConfig {
  configPrefixRelease?: string;
  zipPrefixRelease?: string;
  ACacheZipPrefixRelease?: string;
  /** Milliseconds; 0 or less stores 300000. */
  configUpdateInterval?: number;
}

/// The settings' codes of the environment (setEnvNative): 0 "Debug", 1 "Daily", 2 "Release".
export type EnvCode = 0 | 1 | 2;
/// The network's codes (setNetworkStatusNative): 0 none, 1 unrestricted, 2 slow mobile, 3 fast
/// mobile.
export type NetworkCode = 0 | 1 | 2 | 3;

/**
 * 1. Sets the host object, the root folder and the raw-file folder, once per process (queued).
 * Exactly three arguments: with fewer or more, or a root that is not a string, it returns false
 * and does nothing; a third argument that is not a string means no raw-file folder. Once the proxy
 * is set, later calls return true and change nothing. Throws an Error (code
 * "FERRIT_NO_PUBLIC_KEY") whose message says how to pass a key when the host object has neither a
 * publicKey nor insecureNoSignatureCheck: true, and one with the code "FERRIT_BAD_PUBLIC_KEY"
 * when its publicKey is not an Ed25519 public key; nothing opens then.
 */
export function setProxyNative<E = unknown>(
  bridge: HostBridge<E>,
  rootPath: string,
  rawFileFolder: string | null | undefined,
): boolean;
/**
 * 2. The host's answer to a "sendRequest" (queued). An id that is not pending is ignored. Without
 * `error` (or with one whose code is 0) the request succeeded with `response`; a response that is
 * not an object is an empty 200.
 */
export function onSendRequestFinishedNative(
  id: string,
  response: ProxyResponseObject | null | undefined,
  error?: ProxyErrorObject | null,
): undefined;
/** 3. Not an integer: ignored. */
export function setEnvNative(env: EnvCode): undefined;
/** 4. Anything but a string, or nothing, sets "" (the configuration's path then has no locale). */
export function setLocaleNative(locale?: string): undefined;
/** 5. Not an object: ignored; members of the wrong type are left out. */
export function setDefaultConfigNative(config: DefaultConfig): undefined;
/** 6. Not an integer: ignored. */
export function setNetworkStatusNative(status: NetworkCode): undefined;
/** 7. Three non-empty strings (queued); anything else is ignored. */
export function registerAcceptNative(key: string, names: string, accept: string): undefined;
/** 8. Bit 0 of mode: the host calls startUpdateNative itself (queued). */
export function setupNative(appKey: string, appVersion: string, mode: number): undefined;
/** 9. (queued) Arguments are ignored. */
export function startUpdateNative(): undefined;
/** 10. (queued) Arguments are ignored. */
export function clientActivedNative(): undefined;
/** 11. (queued) Arguments are ignored. */
export function clientDeactivedNative(): undefined;
/** 12. (queued) Not a string: ignored. */
export function installPreloadNative(packName: string): undefined;
/** 13. The address of the C function table; the same on every call. Arguments are ignored. */
export function getAccessAPINative(): bigint;
/** 14. A non-empty array of strings (queued); anything else is ignored. */
export function prefetchNative(urls: string[]): undefined;
/**
 * 15. Installs or updates the pack `descriptor.name`; the callback receives the pack name and
 * the error value (undefined on success), later, on the script thread. A callback that is not a
 * function: nothing happens. A descriptor that is not an object is a request for the pack "", and
 * the callback still answers, with the name "" and an error (3201).
 */
export function updatePackNative<E = unknown>(
  descriptor: PackDescriptor,
  callback: (name: string, error: HostErrorValue<E> | undefined) => void,
): undefined;
/**
 * 16. Answers on the calling thread. Called with no argument at all it answers undefined; any
 * request that is not an object (undefined included) is an empty one, answered with the error
 * 3001 "Not Ferrit resource".
 */
export function getResourceSyncNative(): undefined;
export function getResourceSyncNative<E = unknown>(request: ResourceRequestObject): ResourceResponseObject<E>;
/**
 * 17. The callback receives the response object, later, on the script thread. A callback that is
 * not a function: nothing happens. A request that is not an object is an empty one: the callback
 * still answers, with the error 3001 "Not Ferrit resource". Should the engine fail to build the
 * response object, the callback receives undefined.
 */
export function getResourceNative<E = unknown>(
  request: ResourceRequestObject,
  callback: (response: ResourceResponseObject<E> | undefined) => void,
): undefined;
/**
 * 18. The folder of a file of an installed application pack; "" when there is none. Called with
 * no argument, or a name that is not a string, it answers undefined. A path that is not a string
 * counts as "".
 */
export function getACacheRootPathNative(): undefined;
export function getACacheRootPathNative(name: string, path?: string): string;

/// A failed inspector command: the reply's message, its code and the whole reply.
export interface InspectError extends Error {
  code: number | undefined;
  data: unknown;
}

/// The status report that inspect("FerritDev.info") answers; onStateChanged receives it as JSON
/// text.
export interface InspectInfo {
  version: string;
  process: 'main' | 'sub';
  feature: number;
  /**
   * What keeps the library from serving or updating: "NO_PROXY", "ROOT_NOT_EXIST", "NOT_SETUP",
   * "NO_APPKEY", "NO_APPVERSION", "NOT_UPDATE_CONFIG", "NOT_START_UPDATE", "STORAGE_READ_ONLY".
   * Absent when nothing does.
   */
  error?: string[];
  /** "writable", or "read-only: " and the reason. */
  storage: string;
  /**
   * Once the signed configuration said when it was signed or when it expires, or keys changed:
   * those times (milliseconds since the epoch, 0 when not said), whether the one in force has
   * expired, the ids of the keys learnt and retired, and why the last document that verified was
   * ignored ("expired" or "older").
   */
  configuration?: {
    issued: number;
    expires: number;
    expired: boolean;
    keys: { trusted: string[]; retired: string[] };
    refused?: { reason: 'expired' | 'older'; message: string; url: string; version: string; issued: number; expires: number; at: number };
  };
}

/**
 * Sends a command to the developer inspector ("Ferrit.prefetch", "FerritDev.info", ...) and
 * resolves with its reply. A command that fails (9996 when the command does not exist) rejects with
 * an InspectError; a command that is not a string rejects with a TypeError.
 */
export function inspect(command: 'FerritDev.info', params?: Record<string, unknown>): Promise<InspectInfo>;
export function inspect(command: string, params?: Record<string, unknown>): Promise<Record<string, unknown>>;

// ---- The host API: open() and the cache it answers (lib/cache.js).

/// The codes of the package's own refusals; a failure of the library carries its number instead.
export type FerritErrorCode =
  | 'FERRIT_BAD_OPTION'
  | 'FERRIT_NO_PUBLIC_KEY'
  | 'FERRIT_BAD_PUBLIC_KEY'
  | 'FERRIT_ALREADY_OPEN'
  | 'FERRIT_OTHER_ROOT'
  | 'FERRIT_CLOSED'
  | 'FERRIT_NOT_SUPPORTED'
  | 'FERRIT_NO_CONFIGURATION'
  | 'FERRIT_INSPECT_FAILED';

/// The package's error: every rejection of open() and of the cache, every miss, and what the
/// library's error values become.
export class FerritError extends Error {
  constructor(message: string, details?: { code?: number | FerritErrorCode; reason?: string; cause?: unknown });
  /** The library's number (1003, 3104, ...) or the package's "FERRIT_..." text. */
  code: number | FerritErrorCode | undefined;
  /** The words, without the package's prefix. */
  reason: string;
}

/// The network state the library updates under: 'none' keeps installed packs as they are.
export type NetworkStatus = 'none' | 'unrestricted' | 'slow-mobile' | 'fast-mobile';

/// The fetch the package sends the library's requests with (globalThis.fetch by default).
export type FetchFunction = (url: string, init: { headers: Record<string, string>; signal?: AbortSignal }) => Promise<{
  status: number;
  headers: { forEach(callback: (value: string, name: string) => void): void } | Record<string, string>;
  body?: unknown;
  arrayBuffer(): Promise<ArrayBuffer>;
}>;

export interface OpenOptions {
  /** The cache's folder; created when missing. One root per process. */
  root: string;
  appKey: string;
  appVersion: string;
  /** The publisher's Ed25519 public key, in any form of PublisherKey. Required unless insecureNoSignatureCheck. */
  publicKey?: PublisherKey;
  /** Development only: opens with no signature checked when no publicKey is given. */
  insecureNoSignatureCheck?: boolean;
  /** The address of the tree `ferrit publish` wrote. Without it nothing is requested. */
  server?: string;
  /** Where the packs are: absolute, or relative to server. Default `${server}packs/`. */
  packs?: string;
  /** Default: Intl.DateTimeFormat().resolvedOptions().locale. */
  locale?: string;
  /** Default 'unrestricted'. */
  network?: NetworkStatus;
  /** Default 'release'; 'daily' and 'debug' read the addresses built into the library. */
  env?: 'release' | 'daily' | 'debug';
  /** Default globalThis.fetch; every request of the library goes through it. */
  fetch?: FetchFunction;
  /** A folder of packs shipped with the app. */
  rawFiles?: string;
  /** Milliseconds between the library's own configuration checks (default 300000). */
  updateInterval?: number;
  /** Default true: updating starts once the first configuration arrived; false: call startUpdate(). */
  autoUpdate?: boolean;
  /** 1 (most severe only) .. 5 (everything); default FERRIT_LOG_LEVEL, else 2. */
  logLevel?: 1 | 2 | 3 | 4 | 5;
  /** The publisher's channel (`ferrit publish --channel NAME`): its configuration below server's "channels/NAME/". */
  channel?: string;
}

/// A request answered from an installed pack.
export interface Hit {
  hit: true;
  url: string;
  status: 200;
  headers: Record<string, string>;
  body: Buffer;
  md5: string;
}

/// A request the cache does not answer: the host goes to the network.
export interface Miss {
  hit: false;
  url: string;
  is404: boolean;
  /** The library's code; 0 when it gave none. */
  code: number;
  /** The library's words. */
  reason: string;
  error: FerritError;
}

export type Answer = Hit | Miss;

export interface GetOptions {
  headers?: Record<string, string>;
  referrer?: string;
}

export type LifecycleState = 'loaded' | 'proxied' | 'set up' | 'configured' | 'updating';

export interface Status {
  state: LifecycleState;
  /** 'writable', or 'read-only: ' and the reason. */
  storage: string;
  /** The version of the configuration in force; '' while there is none. */
  version: string;
  /** The status report's codes ("NOT_START_UPDATE", ...), then the host's problems in words. */
  problems: string[];
  packs: Record<string, { configured: number; installed: number }>;
}

export interface PackResult {
  name: string;
  /** Absent when the pack installed (or was current). */
  error?: FerritError;
}

export interface UpdateResult {
  version: string;
  packs: PackResult[];
}

/// A performance record of the library.
export interface FerritRecord {
  name: string;
  dimensions: Record<string, string>;
  measures: Record<string, number>;
}

/// One entry of the library's log, as the JSON line it writes to stderr.
export interface LogEntry {
  level: number;
  tag: string;
  event: string;
  message?: string;
  [field: string]: unknown;
}

export interface FerritCacheEvents {
  packUpdated: [name: string];
  queueFinished: [count: number];
  record: [record: FerritRecord];
  log: [entry: LogEntry];
  state: [status: Status];
}

export interface FerritCache extends NodeJS.EventEmitter {
  get(url: string, options?: GetOptions): Promise<Answer>;
  getSync(url: string, options?: GetOptions): Answer;
  prefetch(urls: string[]): void;
  update(): Promise<UpdateResult>;
  update(name: string): Promise<PackResult>;
  startUpdate(): void;
  setNetwork(status: NetworkStatus): void;
  setActive(active: boolean): void;
  status(): Promise<Status>;
  inspect(command: string, params?: Record<string, unknown>): Promise<Record<string, unknown>>;
  logLevel: number;
  close(): Promise<void>;
  readonly closed: boolean;
  readonly root: string;

  on<K extends keyof FerritCacheEvents>(event: K, listener: (...args: FerritCacheEvents[K]) => void): this;
  once<K extends keyof FerritCacheEvents>(event: K, listener: (...args: FerritCacheEvents[K]) => void): this;
  off<K extends keyof FerritCacheEvents>(event: K, listener: (...args: FerritCacheEvents[K]) => void): this;
  addListener<K extends keyof FerritCacheEvents>(event: K, listener: (...args: FerritCacheEvents[K]) => void): this;
  removeListener<K extends keyof FerritCacheEvents>(event: K, listener: (...args: FerritCacheEvents[K]) => void): this;
}

/// Sets the library up for the host and resolves with the cache once it is; rejects with a
/// FerritError ("FERRIT_BAD_OPTION", "FERRIT_NO_PUBLIC_KEY", "FERRIT_ALREADY_OPEN", ...).
export function open(options: OpenOptions): Promise<FerritCache>;
