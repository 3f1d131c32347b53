// SPDX-License-Identifier: LGPL-3.0-or-later
// Is the page in sight? Nothing is asked for a page that nobody sees.
import { useEffect, useState } from 'react';

export function useVisible(): boolean {
  const [isVisible, setVisible] = useState(!cockpit.hidden);
  useEffect(() => {
    const look = () => setVisible(!cockpit.hidden);
    cockpit.addEventListener('visibilitychange', look);
    return () => cockpit.removeEventListener('visibilitychange', look);
  }, []);
  return isVisible;
}
