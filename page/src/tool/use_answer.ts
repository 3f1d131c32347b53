// SPDX-License-Identifier: LGPL-3.0-or-later
// The answer to a question, kept while the next one is on its way.
import { useCallback, useEffect, useState } from 'react';
import { ask, asToolError, kCancelled, type ToolError } from './ask';

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

// Asks when the words change, and when again() is called. Nothing is asked without words. The answer
// to an earlier question is dropped.
export function useAnswer<Answer>(words: string[] | undefined): Answered<Answer> {
  const key = words === undefined ? undefined : JSON.stringify(words);
  const [state, setState] = useState<State<Answer>>({});
  const [isPending, setPending] = useState(key !== undefined);
  const [isSlow, setSlow] = useState(false);
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
    const timer = setTimeout(() => setSlow(true), kSlow);
    const finish = (): boolean => {
      clearTimeout(timer);
      if (isStale) return false;
      setSlow(false);
      setPending(false);
      return true;
    };
    asked.answer.then(
      (answer) => {
        if (finish()) setState({ answer, asked: key });
      },
      (error: unknown) => {
        if (!finish()) return;
        const told = asToolError(error);
        setState((before) => (told.code === kCancelled ? before : { ...before, error: told }));
      },
    );
    return () => {
      isStale = true;
      clearTimeout(timer);
      setSlow(false);
      asked.cancel();
    };
  }, [key, round]);

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
