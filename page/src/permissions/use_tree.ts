// SPDX-License-Identifier: LGPL-3.0-or-later
// Loads the tree page by page, as it is opened.
import { useCallback, useEffect, useRef, useState } from 'react';
import { ask, asToolError, type Asked, type ToolError } from '../tool/ask';
import type { ChildrenPage, OfMap } from '../tool/documents';
import { ancestorsOf, kEmptyTree, onShare, withFolder, withOpen, withPage, type TreeState } from './tree_state';

export interface LoadedTree {
  state: TreeState;
  loading: ReadonlySet<string>;
  error: ToolError | undefined;
  // The map of the first answer, and whether a later one came from another.
  isOtherMap: boolean;
  // An answer from elsewhere in the view, which may be about another map.
  compare(map: OfMap): void;
  setOpen(path: string, isOpen: boolean): void;
  loadMore(path: string): void;
  cancel(): void;
  reload(): void;
}

const kItself = 'itself '; // before the path, in the key of a question about one folder

function isSame(a: OfMap, b: OfMap): boolean {
  return a.generation === b.generation && a.table_id === b.table_id;
}

export function useTree(selected: string): LoadedTree {
  const [state, setState] = useState<TreeState>(kEmptyTree);
  const [loading, setLoading] = useState<ReadonlySet<string>>(new Set());
  const [error, setError] = useState<ToolError>();
  const [isOtherMap, setOtherMap] = useState(false);
  const [round, setRound] = useState(0);
  const map = useRef<OfMap>();
  const running = useRef(new Map<string, Asked<ChildrenPage>>());
  // The question that the error is about. Rows in sight ask for what follows them; after an error
  // they wait until somebody tries again.
  const failed = useRef<string>();
  const current = useRef(state);
  current.current = state;

  const compare = useCallback((other: OfMap) => {
    if (map.current === undefined) map.current = { generation: other.generation, table_id: other.table_id };
    else if (!isSame(map.current, other)) setOtherMap(true);
  }, []);

  const forget = useCallback(() => {
    failed.current = undefined;
    setError(undefined);
  }, []);

  const question = useCallback(
    async (key: string, words: string[]): Promise<ChildrenPage | undefined> => {
      // Somebody else has asked this, and takes the answer: what follows may need it.
      const other = running.current.get(key);
      if (other) {
        await other.answer.catch(() => undefined);
        return undefined;
      }
      const asked = ask<ChildrenPage>(['map', 'tree', ...words]);
      running.current.set(key, asked);
      setLoading(new Set(running.current.keys()));
      try {
        const page = await asked.answer;
        if (running.current.get(key) !== asked) return undefined;
        compare(page);
        if (failed.current === key) forget();
        return page;
      } catch (problem) {
        if (running.current.get(key) === asked) {
          failed.current = key;
          setError(asToolError(problem));
        }
        return undefined;
      } finally {
        if (running.current.get(key) === asked) {
          running.current.delete(key);
          setLoading(new Set(running.current.keys()));
        }
      }
    },
    [compare, forget],
  );

  const load = useCallback(
    async (path: string, after?: string): Promise<void> => {
      const words = [onShare(path), '--children', ...(after === undefined ? [] : [`--after=${after}`])];
      const page = await question(path, words);
      if (page) setState((now) => withPage(now, path, page, after === undefined));
    },
    [question],
  );

  // Opens the way to the selected folder, and adds each folder of it that lies beyond the pages.
  const reveal = useCallback(
    async (path: string): Promise<void> => {
      if (failed.current?.startsWith(kItself)) forget();
      for (const folder of ancestorsOf(path)) {
        if (!current.current.levels.has(folder)) await load(folder);
        setState((now) => withOpen(now, folder, true));
        const next = path.split('/').slice(0, folder === '' ? 1 : folder.split('/').length + 1).join('/');
        const self = await question(`${kItself}${next}`, [onShare(next), '--children', '--limit', '1']);
        if (!self) return;
        setState((now) => withFolder(now, next, self));
      }
    },
    [load, question, forget],
  );

  useEffect(() => {
    void load('');
    const asked = running.current;
    return () => {
      const dropped = [...asked.values()];
      asked.clear();
      dropped.forEach((each) => each.cancel());
    };
  }, [load, round]);

  useEffect(() => {
    if (selected !== '') void reveal(selected);
  }, [reveal, selected, round]);

  const setOpen = useCallback(
    (path: string, isOpen: boolean) => {
      setState((now) => withOpen(now, path, isOpen));
      if (isOpen && !current.current.levels.has(path)) void load(path);
    },
    [load],
  );
  const loadMore = useCallback(
    (path: string) => {
      const last = current.current.levels.get(path)?.children.at(-1);
      if (last && failed.current !== path) void load(path, last.name);
    },
    [load],
  );
  const cancel = useCallback(() => running.current.forEach((each) => each.cancel()), []);
  // The folders that are open stay open, as far as the new map has them.
  const reload = useCallback(() => {
    const open = [...current.current.open];
    map.current = undefined;
    forget();
    setOtherMap(false);
    setState((now) => ({ ...now, levels: new Map() }));
    setRound((now) => now + 1);
    open.forEach((path) => void load(path));
  }, [load, forget]);

  return { state, loading, error, isOtherMap, compare, setOpen, loadMore, cancel, reload };
}
