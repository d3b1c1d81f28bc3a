// Types of lib/vuser.js, for a script that loads it with
//   /** @type {import('<path>/lib/vuser')} */
//   const kesh = keshRequire('<path>/lib/vuser.js', __dirname);

/** A parsed answer of the service. */
export interface Answer {
  messageId: number;
  socketId: string;
  responseType: number;
  data?: any;
  /** Set when the service could not carry the request out. */
  error?: string;
  [key: string]: any;
}

export interface SendOptions {
  /** Reject with a RequestError of kind "timeout" when no answer came within this time. */
  timeoutMs?: number;
}

export interface BareSocket {
  readonly id: string;
  /** Settled once the socket has closed, with what closed it. */
  readonly closed: Promise<unknown>;
  /** Resolves when release() is called; rejects with undefined after `timeoutMs` (negative: no
   * time-out), or with the error given to release(). One wait at a time. */
  wait(timeoutMs: number): Promise<void>;
  release(error?: unknown): void;
  waitForClose(timeoutMs?: number): Promise<unknown>;
  close(): Promise<unknown>;
}

/** A failed request, counted by the runner under `kind` ("check", "timeout", "service", ...). */
export class RequestError extends Error {
  constructor(kind: string, message: string);
  readonly kind: string;
}

/** Connects to the service and starts draining the queue of script calls. */
export function connect(port: number, host?: string): void;
export const connected: boolean;
/** The parsed answer; undefined when the answer is no JSON. A payload that is no object is sent
 * as { data: payload }. */
export function send(payload: unknown, options?: SendOptions): Promise<Answer | undefined>;
export function sendSync(payload: unknown): Answer | undefined;
export function sendNoWait(payload: unknown): void;
export function forgetPending(): void;
export function openSocket(socketId: string, onMessage: (line: any) => void): Promise<BareSocket>;
export function sleep(ms: number): Promise<void>;
/** Milliseconds from an arbitrary start, with a fraction. */
export function now(): number;
/** Throws a RequestError of kind "check" unless `condition` holds. */
export function check(condition: unknown, message: string): asserts condition;
/** Tells kesh-run that a request of `kind` took `ms`, and failed with an error of kind `error`. */
export function report(kind: string, ms: number, error?: string | null): void;
/** Runs `request`, reports its time under `kind` (an error of the thrown error's kind, or
 * "exception", when it throws or rejects) and returns what it returned. */
export function measure<T>(kind: string, request: () => T): T;
