// SPDX-License-Identifier: LGPL-3.0-or-later
// The view and what it shows, as the address has them: a link leads to the same place.
import { useCallback, useEffect, useState } from 'react';

export type View = 'status' | 'permissions' | 'maps' | 'history';
export type Options = Record<string, string>;

export interface Place {
  view: View;
  options: Options;
}

const kViews: readonly View[] = ['status', 'permissions', 'maps', 'history'];

function currentPlace(): Place {
  const view = kViews.find((name) => name === cockpit.location.path[0]) ?? 'status';
  const options: Options = {};
  for (const [key, value] of Object.entries(cockpit.location.options)) {
    options[key] = Array.isArray(value) ? (value[0] ?? '') : value;
  }
  return { view, options };
}

export function usePlace(): [Place, (view: View, options: Options) => void] {
  const [place, setPlace] = useState(currentPlace);
  useEffect(() => {
    const look = () => setPlace(currentPlace());
    cockpit.addEventListener('locationchanged', look);
    return () => cockpit.removeEventListener('locationchanged', look);
  }, []);
  const go = useCallback((view: View, options: Options) => {
    const given = Object.entries(options).filter(([, value]) => value !== '');
    cockpit.location.go([view], Object.fromEntries(given));
  }, []);
  return [place, go];
}
