// The few Node globals the example uses. Only the compiler is installed for this check, so these
// stand in for Node's own type package.
declare module 'fs' {
  export function mkdirSync(path: string, options?: { recursive?: boolean }): string | undefined;
  export function readFileSync(path: string): Uint8Array;
}
declare function setImmediate(callback: () => void): unknown;
declare const console: { log(...values: unknown[]): void };
declare const Buffer: { from(data: ArrayBuffer): { toString(): string } };
