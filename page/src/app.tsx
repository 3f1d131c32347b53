// SPDX-License-Identifier: LGPL-3.0-or-later
// The views and the way between them.
import { Nav, NavItem, NavList, Page, PageSection } from '@patternfly/react-core';
import { useCallback, useEffect, useState, type ReactElement } from 'react';
import { usePlace, type Options, type Place, type View } from './location';
import { HistoryView } from './history/HistoryView';
import { MapsView } from './maps/MapsView';
import { ErrorNote } from './parts/ErrorNote';
import { PermissionsView } from './permissions/PermissionsView';
import { StatusView } from './status/StatusView';
import { texts } from './texts';
import { kDeniedEvent, type ToolError } from './tool/ask';

const kViews: readonly View[] = ['status', 'permissions', 'maps', 'history'];

// Without administrative access nothing can be asked, in no view.
function useDenied(): [ToolError | undefined, () => void] {
  const [denied, setDenied] = useState<ToolError>();
  useEffect(() => {
    const look = (event: Event) => setDenied((event as CustomEvent<ToolError>).detail);
    addEventListener(kDeniedEvent, look);
    return () => removeEventListener(kDeniedEvent, look);
  }, []);
  return [denied, () => setDenied(undefined)];
}

function Views({ view, options, go }: Place & { go: (view: View, options: Options) => void }): ReactElement {
  const goTo = useCallback((next: Options) => go(view, next), [go, view]);
  switch (view) {
    case 'permissions':
      return <PermissionsView options={options} go={goTo} />;
    case 'maps':
      return <MapsView options={options} go={goTo} />;
    case 'history':
      return <HistoryView options={options} go={goTo} />;
    default:
      return <StatusView />;
  }
}

export function App(): ReactElement {
  const [{ view, options }, go] = usePlace();
  const [denied, tryAgain] = useDenied();
  return (
    <Page className="no-masthead-sidebar" isContentFilled>
      <PageSection type="subnav" component="div">
        <Nav variant="horizontal-subnav" aria-label={texts.title} onSelect={(_event, { itemId }) => go(itemId as View, {})}>
          <NavList>
            {kViews.map((name) => (
              <NavItem key={name} itemId={name} isActive={name === view} to={`#/${name}`} preventDefault>
                {texts.views[name]}
              </NavItem>
            ))}
          </NavList>
        </Nav>
      </PageSection>
      <PageSection isFilled component="div">
        {denied ? <ErrorNote error={denied} again={tryAgain} /> : <Views view={view} options={options} go={go} />}
      </PageSection>
    </Page>
  );
}
