// The parts of Node's own types that the sources use, so that they can be checked without a package of types.
declare module 'node:child_process' { export const spawn: (path: string, args: string[], options: object) => any; }
declare module 'node:crypto' { export const randomUUID: () => string; }
declare module 'node:os' { export const endianness: () => 'LE' | 'BE'; }
declare module 'node:fs' {
  export const accessSync: (path: string, mode?: number) => void;
  export const constants: {X_OK: number};
  export const statSync: (path: string) => {isFile(): boolean};
}
declare module 'node:fs/promises' { export const readFile: (path: string | URL) => Promise<Uint8Array>; }
declare module 'node:path' {
  export const delimiter: string;
  export const isAbsolute: (path: string) => boolean;
  export const join: (...parts: string[]) => string;
}
declare module 'node:url' { export const fileURLToPath: (url: URL) => string; }
declare namespace NodeJS { interface ErrnoException extends Error { code?: string } }
declare const process: {env: Record<string, string | undefined>, platform: string, arch: string};
interface Buffer extends Uint8Array { toString(encoding?: string): string; swap16(): Buffer; }
declare const Buffer: {
  from(bytes: ArrayBufferLike | Uint8Array, offset?: number, length?: number): Buffer;
  concat(pieces: readonly Uint8Array[]): Buffer;
};
declare class URL { constructor(path: string, base?: string | URL); }
interface ImportMeta { url: string }
declare const performance: {now(): number};
declare function setTimeout(action: () => void, ms: number): any;
declare function clearTimeout(timer: any): void;
declare function setImmediate(action: () => void): any;
declare function queueMicrotask(action: () => void): void;
interface ObjectConstructor { hasOwn(object: object, key: PropertyKey): boolean }
