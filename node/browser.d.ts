// require('ferritcore/browser'): serves a puppeteer-core page's requests from a ferritcore cache.
// The types are structural, so that neither puppeteer-core nor a particular cache is needed to
// compile against them.

/** A cache's answer to one URL, as FerritCache.get gives it: a hit carries the body. */
export type PageAnswer =
  | { hit: true; url?: string; status?: number; headers: Record<string, string>; body: Buffer; md5?: string }
  | { hit: false; url?: string; is404?: boolean; code: number | string; reason: string; error?: Error };

/** What servePage needs of a cache (a FerritCache has all of it). */
export interface PageCache {
  get(url: string, options: { headers?: Record<string, string>; referrer?: string }): Promise<PageAnswer>;
  /** Needed with `sync: true` only. */
  getSync?(url: string, options: { headers?: Record<string, string>; referrer?: string }): PageAnswer;
  /** When present, the packs' URL prefixes come from the configuration in force. */
  inspect?(command: string, params?: Record<string, unknown>): Promise<Record<string, unknown>>;
  /** When present, "packUpdated" makes servePage read the prefixes again. */
  on?(event: 'packUpdated', listener: (name: string) => void): unknown;
  off?(event: 'packUpdated', listener: (name: string) => void): unknown;
}

/** The part of a puppeteer-core CDPSession that servePage uses. */
export interface PageSessionLike {
  send(method: string, params?: object): Promise<unknown>;
  on(event: string, listener: (event: any) => void): unknown;
  off(event: string, listener: (event: any) => void): unknown;
  detach(): Promise<void>;
}

/** The part of a puppeteer-core Page that servePage uses. */
export interface PageLike {
  createCDPSession(): Promise<PageSessionLike>;
}

export interface ServePageOptions {
  /**
   * URL prefixes whose requests the cache answers; other requests never pause. Default: the
   * prefixes of the packs in the cache's configuration (read again on each "packUpdated"), or
   * every URL when the cache has no `inspect`.
   */
  prefixes?: string[];
  /**
   * Bodies of at most this many bytes are handed to the browser in the protocol message; larger
   * ones come from the helper's loopback server. Default 65536. Infinity: every body in the
   * message (and no document is placed on loopback; see the README's limits).
   */
  inlineLimit?: number;
  /** Ask the cache with getSync instead of get. Default false. */
  sync?: boolean;
}

/** One request the page made under the prefixes. */
export interface ServedRequest {
  url: string;
  /** True when the cache answered it; false when it went to the network. */
  fromPack: boolean;
  /** The cache's code for a miss. */
  code?: number | string;
  /** The cache's words for a miss. */
  reason?: string;
}

export interface PageServeStats {
  /** Requests the browser paused for the cache. */
  paused: number;
  /** Answered from the cache. */
  fromPack: number;
  /** Misses, and requests other than GET and HEAD, let go to the network. */
  toNetwork: number;
  /** Hits handed over in the protocol message. */
  inline: number;
  /** Hits served by the loopback server. */
  loopback: number;
  /** Body bytes from the cache. */
  bytes: number;
  /** Milliseconds spent waiting for the cache's answers, summed over the requests. */
  cacheMs: number;
  /** Milliseconds the browser took to take the answers (fulfil or continue), summed. */
  protocolMs: number;
}

export interface PageServer {
  /** Every request under the prefixes, in the order the browser paused them. */
  readonly served: ServedRequest[];
  readonly stats: PageServeStats;
  /** The prefixes in force; null while every URL pauses. */
  readonly prefixes: string[] | null;
  /** Stops answering: the page's requests go to the network; the loopback server closes. */
  detach(): Promise<void>;
}

/**
 * Answers every request of `page` under the packs' prefixes from `cache`; a miss goes on to the
 * network. Resolves once the page's requests pause. Rejects with a TypeError whose code is
 * "FERRIT_BAD_OPTION" when an argument is not what is expected.
 */
export function servePage(page: PageLike, cache: PageCache, options?: ServePageOptions): Promise<PageServer>;
