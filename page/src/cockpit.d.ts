// SPDX-License-Identifier: LGPL-3.0-or-later
// The part of Cockpit's interface that the page uses.
interface CockpitProblem {
  problem: string | null;
  message: string;
  exit_status?: number | null;
  exit_signal?: string | null;
}

interface CockpitProcess {
  // The output comes with a failure too.
  then(done: (output: string) => void, failed: (error: CockpitProblem, output?: string) => void): void;
  close(problem?: string): void;
}

interface CockpitLocation {
  path: string[];
  options: Record<string, string | string[]>;
  go(path: string[], options?: Record<string, string>): void;
  replace(path: string[], options?: Record<string, string>): void;
}

interface Cockpit {
  location: CockpitLocation;
  hidden: boolean;
  spawn(words: string[], options: { superuser: 'require'; err: 'message' }): CockpitProcess;
  addEventListener(name: 'locationchanged' | 'visibilitychange', listener: () => void): void;
  removeEventListener(name: 'locationchanged' | 'visibilitychange', listener: () => void): void;
}

declare const cockpit: Cockpit;
