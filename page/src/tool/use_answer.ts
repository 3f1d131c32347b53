// SPDX-License-Identifier: LGPL-3.0-or-later
// The answer to a question, kept while the next one is on its way.
import { useCallback, useEffect, useState } from 'react';
import { ask, asToolError, type ToolError } from './ask';

const kSlow = 1000; // milliseconds after which a question may be cancelled

export interface Answered<Answer> {
  answer: Answer | undefined;
  // The question that the answer belongs to; another one may be on its way.
  asked: string | undefined;
  error: ToolError | undefined;
  isPending: boolean;
  isSlow: boolean;
  again(): void;
  cancel(): void;
}

interface State<Answer> {
  answer?: Answer;
  asked?: string;
  error?: ToolError;
}

// Says when something has been pending for so long that people may want to cancel it.
export function useSlow(isPending: boolean): boolean {
  const [isSlow, setSlow] = useState(false);
  useEffect(() => {
    if (!isPending) return undefined;
    const timer = setTimeout(() => setSlow(true), kSlow);
    return () => {
      clearTimeout(timer);
      setSlow(false);
    };
  }, [isPending]);
  return isSlow;
}

// Asks when the words or the edition change, and when again() is called. Nothing is asked without
// words. The answer to an earlier question is dropped.
export function useAnswer<Answer>(words: string[] | undefined, edition = 0): Answered<Answer> {
  const key = words === undefined ? undefined : JSON.stringify(words);
  const [state, setState] = useState<State<Answer>>({});
  const [isPending, setPending] = useState(key !== undefined);
  const isSlow = useSlow(isPending);
  const [round, setRound] = useState(0);
  const [stop, setStop] = useState<() => void>(() => () => {});

  useEffect(() => {
    if (key === undefined) {
      setPending(false);
      return undefined;
    }
    let isStale = false;
    setPending(true);
    const asked = ask<Answer>(JSON.parse(key) as string[]);
    setStop(() => asked.cancel);
    asked.answer.then(
      (answer) => {
        if (isStale) return;
        setPending(false);
        setState({ answer, asked: key });
      },
      (error: unknown) => {
        if (isStale) return;
        setPending(false);
        setState((before) => ({ ...before, error: asToolError(error) }));
      },
    );
    return () => {
      isStale = true;
      asked.cancel();
    };
  }, [key, round, edition]);

  const again = useCallback(() => setRound((now) => now + 1), []);
  return {
    answer: state.answer,
    asked: state.asked,
    error: state.error,
    isPending,
    isSlow,
    again,
    cancel: stop,
  };
}
