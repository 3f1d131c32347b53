// SPDX-License-Identifier: LGPL-3.0-or-later
// Questions to tavrixctl: each is a process, as root, and its answer a JSON document.
import type { ErrorDocument } from './documents';

// What kept an answer away. The code is the tool's own, or one of those below.
export class ToolError extends Error {
  constructor(
    readonly code: string,
    message: string,
    readonly detail: string,
  ) {
    super(message);
  }
}

export const kMissing = 'tool-missing';
export const kDenied = 'access-denied';
export const kDeniedEvent = 'tavrix-access-denied'; // to the window, so that the page shows nothing half
export const kKilled = 'killed';
export const kCancelled = 'cancelled';
export const kUnreadable = 'unreadable';

export interface Asked<Answer> {
  answer: Promise<Answer>;
  cancel(): void;
}

function isError(document: object): document is ErrorDocument {
  return 'error' in document && 'schema' in document && document.schema === 'tavrix.error/1';
}

// A document, or nothing for other output.
function documentIn(output: string | undefined): object | undefined {
  if (!output) return undefined;
  try {
    const document: unknown = JSON.parse(output);
    return typeof document === 'object' && document !== null ? document : undefined;
  } catch {
    return undefined;
  }
}

function errorOf(problem: CockpitProblem | null, output: string | undefined): ToolError {
  const detail = [problem?.message, problem?.problem, output].filter(Boolean).join('\n');
  if (problem?.problem === 'not-found') return new ToolError(kMissing, '', detail);
  if (problem?.problem === 'access-denied' || problem?.problem === 'authentication-failed') {
    const denied = new ToolError(kDenied, '', detail);
    dispatchEvent(new CustomEvent(kDeniedEvent, { detail: denied }));
    return denied;
  }
  if (problem?.problem === 'cancelled' || problem?.problem === 'terminated') {
    return new ToolError(kCancelled, '', detail);
  }
  if (problem?.exit_signal) return new ToolError(kKilled, problem.exit_signal, detail);
  return new ToolError(kUnreadable, '', detail);
}

// The exit code 1 is an answer too ("refused", "different"), so the document decides.
function settle<Answer>(
  problem: CockpitProblem | null,
  output: string | undefined,
  done: (answer: Answer) => void,
  failed: (error: ToolError) => void,
): void {
  const document = documentIn(output);
  if (document === undefined) failed(errorOf(problem, output));
  else if (isError(document)) failed(new ToolError(document.error.code, document.error.message, problem?.message ?? ''));
  else done(document as Answer);
}

function start(words: string[]): CockpitProcess {
  return cockpit.spawn(['tavrixctl', '--json', '--no-progress', ...words], { superuser: 'require', err: 'message' });
}

export function ask<Answer>(words: string[]): Asked<Answer> {
  const process = start(words);
  const answer = new Promise<Answer>((done, failed) => {
    process.then(
      (output) => settle(null, output, done, failed),
      (problem, output) => settle(problem, output, done, failed),
    );
  });
  return { answer, cancel: () => process.close('cancelled') };
}

// Runs a command that prints nothing when it has done its work.
export function tell(words: string[]): Promise<void> {
  return new Promise<void>((done, failed) => {
    start(words).then(
      () => done(),
      (problem, output) => settle<never>(problem, output, () => failed(errorOf(problem, output)), failed),
    );
  });
}

// The text that a command prints, as it is.
export function text(words: string[]): Promise<string> {
  return new Promise<string>((done, failed) => {
    cockpit.spawn(['tavrixctl', '--no-progress', ...words], { superuser: 'require', err: 'message' }).then(done, (problem, output) => {
      // The exit code 1 says that there is no record, which is an answer.
      if (problem.exit_status === 1) done(output ?? '');
      else failed(errorOf(problem, output));
    });
  });
}

export function asToolError(error: unknown): ToolError {
  if (error instanceof ToolError) return error;
  return new ToolError(kUnreadable, '', String(error));
}
