// Type declarations of the native module "ferritcore".
//
// Every native reads its arguments leniently: a required argument that is missing or of the wrong
// type makes it return undefined (false for setProxyNative) and do nothing. The one exception is
// the publisher's key on the host object of setProxyNative, which is refused with an Error. Natives marked
// "queued" copy their arguments, hand the work to a worker pool and return at once.

/// The error value that the host's `createError` makes; without a host object yet, a plain object.
export type FerritError = unknown;

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

/// The host's bridge object, given to setProxyNative.
export interface HostBridge {
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
  /** Sends a request; the host answers once with onSendRequestFinishedNative(id, ...). */
  sendRequest(request: ProxyRequestObject, id: string): unknown;
  /** Makes the error value handed back to the host's callbacks. */
  createError(code: number, message: string): FerritError;
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
export interface ResourceResponseObject {
  /** The bytes, in memory that the engine allocated and frees by itself; undefined when there are none. */
  data: ArrayBuffer | undefined;
  md5: string;
  header: Record<string, string>;
  /** createError(code, message) when the cache cannot answer, else undefined. */
  error: FerritError | undefined;
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

/**
 * 1. Sets the host object, the root folder and the raw-file folder, once per process (queued).
 * Throws an Error (code "FERRIT_NO_PUBLIC_KEY") whose message says how to pass a key when the host
 * object has neither a publicKey nor insecureNoSignatureCheck: true, and one with the code
 * "FERRIT_BAD_PUBLIC_KEY" when its publicKey is not an Ed25519 public key; nothing opens then.
 */
export function setProxyNative(bridge: HostBridge, rootPath: string, rawFileFolder: string | null | undefined): boolean;
/** 2. The host's answer to a "sendRequest" (queued). */
export function onSendRequestFinishedNative(id: string, response: ProxyResponseObject | unknown, error?: ProxyErrorObject | unknown): undefined;
/** 3. 0 "Debug", 1 "Daily", 2 "Release". */
export function setEnvNative(env: number): undefined;
/** 4. A non-string counts as "". */
export function setLocaleNative(locale: string): undefined;
/** 5. */
export function setDefaultConfigNative(config: DefaultConfig): undefined;
/** 6. 0 none, 1 unrestricted, 2 slow mobile, 3 fast mobile. */
export function setNetworkStatusNative(status: number): undefined;
/** 7. Three non-empty strings (queued). */
export function registerAcceptNative(key: string, names: string, accept: string): undefined;
/** 8. Bit 0 of mode: the host calls startUpdateNative itself (queued). */
export function setupNative(appKey: string, appVersion: string, mode: number): undefined;
/** 9. (queued) */
export function startUpdateNative(): undefined;
/** 10. (queued) */
export function clientActivedNative(): undefined;
/** 11. (queued) */
export function clientDeactivedNative(): undefined;
/** 12. (queued) */
export function installPreloadNative(packName: string): undefined;
/** 13. The address of the C function table. */
export function getAccessAPINative(): bigint;
/** 14. A non-empty array of strings (queued). */
export function prefetchNative(urls: string[]): undefined;
/** 15. The callback receives the pack name and the error value (undefined on success). */
export function updatePackNative(descriptor: PackDescriptor, callback: (name: string, error: FerritError | undefined) => void): undefined;
/** 16. Answers on the calling thread. */
export function getResourceSyncNative(request: ResourceRequestObject): ResourceResponseObject;
/** 17. The callback receives the response object, later. */
export function getResourceNative(request: ResourceRequestObject, callback: (response: ResourceResponseObject) => void): undefined;
/** 18. The folder of a file of an installed application pack; "" when there is none. */
export function getACacheRootPathNative(name: string, path?: string): string | undefined;

/** Sends a command to the developer inspector ("Ferrit.prefetch", "FerritDev.info", ...). */
export function inspect(command: string, params?: Record<string, unknown>): Promise<Record<string, unknown>>;
