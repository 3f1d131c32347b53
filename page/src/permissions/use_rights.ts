// SPDX-License-Identifier: LGPL-3.0-or-later
// A user's rights on the folders of the tree, a page at a time, for the folders in sight.
import { useCallback, useEffect, useRef, useState } from 'react';
import { ask, asToolError, type Asked, type ToolError } from '../tool/ask';
import type { Effective, OfMap } from '../tool/documents';
import type { Rights } from './Tree';
import { below, onShare, type TreeState } from './tree_state';

interface UserRights {
  rights: ReadonlyMap<string, Rights> | undefined;
  error: ToolError | undefined;
  inSight: (folders: string[]) => void;
}

const kPage = 200;

// `edition` counts the maps that were shown.
export function useRights(user: string, state: TreeState, edition: number, compare: (map: OfMap) => void): UserRights {
  const [rights, setRights] = useState<ReadonlyMap<string, Rights>>(new Map());
  const [error, setError] = useState<ToolError>();
  const [folders, setFolders] = useState<string[]>(['']);
  const running = useRef(new Map<string, Asked<Effective>>());

  // Another user, or another map: nothing of before holds.
  useEffect(() => {
    setRights(new Map());
    setError(undefined);
    const asked = running.current;
    return () => {
      const dropped = [...asked.values()];
      asked.clear();
      dropped.forEach((each) => each.cancel());
    };
  }, [user, edition]);

  useEffect(() => {
    if (user === '') return;
    for (const folder of folders) {
      const children = state.levels.get(folder)?.children ?? [];
      const missing = children.findIndex((child) => !rights.has(below(folder, child.name)));
      if (missing < 0) continue;
      const before = children[missing - 1];
      const key = JSON.stringify([folder, before?.name ?? '']);
      if (running.current.has(key)) continue;
      const after = before === undefined ? [] : [`--after=${before.name}`];
      const asked = ask<Effective>(['effective', `--user=${user}`, onShare(folder), '--children', ...after, '--limit', String(kPage)]);
      running.current.set(key, asked);
      asked.answer.then(
        (answer) => {
          if (running.current.get(key) !== asked) return;
          compare(answer);
          setRights((now) => {
            const next = new Map(now);
            for (const { path, rights: letters, visible } of answer.folders) next.set(path, { letters, isVisible: visible });
            return next;
          });
        },
        (problem: unknown) => {
          if (running.current.get(key) === asked) setError(asToolError(problem));
        },
      );
    }
  }, [user, edition, folders, state.levels, rights, compare]);

  const inSight = useCallback((next: string[]) => setFolders(next), []);
  return { rights: user === '' ? undefined : rights, error, inSight };
}
