// SPDX-License-Identifier: LGPL-3.0-or-later
// Records page by page. Those of an earlier filter stay until the first page of the new one is there.
import { useCallback, useEffect, useRef, useState } from 'react';
import { ask, asToolError, type Asked, type ToolError } from '../tool/ask';
import type { EventRecord, HistoryPage } from '../tool/documents';

export interface Records {
  records: EventRecord[] | undefined;
  next: string | undefined;
  isPending: boolean;
  error: ToolError | undefined;
  more(): void;
  again(): void;
  cancel(): void;
}

export function useRecords(words: string[]): Records {
  const key = JSON.stringify(words);
  const [records, setRecords] = useState<EventRecord[]>();
  const [next, setNext] = useState<string>();
  const [isPending, setPending] = useState(true);
  const [error, setError] = useState<ToolError>();
  const [round, setRound] = useState(0);
  const running = useRef<Asked<HistoryPage>>();

  const load = useCallback(
    async (after: string | undefined): Promise<void> => {
      const before = running.current;
      const place = after === undefined ? [] : [`--after=${after}`];
      const asked = ask<HistoryPage>(['history', 'search', ...(JSON.parse(key) as string[]), ...place]);
      running.current = asked;
      before?.cancel();
      setPending(true);
      try {
        const page = await asked.answer;
        if (running.current !== asked) return;
        setRecords((before) => (after === undefined ? page.records : [...(before ?? []), ...page.records]));
        setNext(page.more ? page.next : undefined);
        setError(undefined);
      } catch (problem) {
        if (running.current === asked) setError(asToolError(problem));
      }
      if (running.current === asked) setPending(false);
    },
    [key],
  );

  useEffect(() => {
    void load(undefined);
    return () => {
      const asked = running.current;
      running.current = undefined;
      asked?.cancel();
    };
  }, [load, round]);

  return {
    records,
    next,
    isPending,
    error,
    more: () => void load(next),
    again: () => setRound((now) => now + 1),
    cancel: () => running.current?.cancel(),
  };
}
