// SPDX-License-Identifier: LGPL-3.0-or-later
// Looks now and then, while somebody sees the view, which map is current.
import { useEffect } from 'react';
import { ask } from '../tool/ask';
import type { ChildrenPage, OfMap } from '../tool/documents';
import { useVisible } from '../visible';

const kEvery = 10_000; // milliseconds between two looks

export function useMapWatch(compare: (map: OfMap) => void): void {
  const isVisible = useVisible();
  useEffect(() => {
    if (!isVisible) return undefined;
    // An error says nothing here: the next question of somebody tells it.
    const look = () => ask<ChildrenPage>(['map', 'tree', '/', '--children', '--limit=1']).answer.then(compare, () => undefined);
    const timer = setInterval(() => void look(), kEvery);
    return () => clearInterval(timer);
  }, [isVisible, compare]);
}
