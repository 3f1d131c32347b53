// SPDX-License-Identifier: LGPL-3.0-or-later
// The records that somebody wants to see.
import type { Options } from '../location';

export interface Filter {
  path: string;
  user: string;
  op: string;
  since: string;
}

export const kFirstPeriod = '1d';

export function filterIn({ path = '', user = '', op = '', since = kFirstPeriod }: Options): Filter {
  return { path, user, op, since };
}

export function wordsOf({ path, user, op, since }: Filter): string[] {
  return [
    ...(path === '' ? [] : [`--path=${path}`]),
    ...(user === '' ? [] : [`--user=${user}`]),
    ...(op === '' ? [] : [`--op=${op}`]),
    ...(op === 'read' ? ['--reads'] : []),
    `--since=${since}`,
  ];
}
