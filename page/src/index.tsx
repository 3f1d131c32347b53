// SPDX-License-Identifier: LGPL-3.0-or-later
import '@patternfly/react-core/dist/styles/base.css';
import './page.css';
import { StrictMode } from 'react';
import { createRoot } from 'react-dom/client';
import { App } from './app';
import { texts } from './texts';
import { followTheme } from './theme';

document.title = texts.title;
followTheme();
const place = document.getElementById('page');
if (place) {
  createRoot(place).render(
    <StrictMode>
      <App />
    </StrictMode>,
  );
}
