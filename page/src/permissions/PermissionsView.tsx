// SPDX-License-Identifier: LGPL-3.0-or-later
// The folders of the map, and who may do what in them.
import { Alert, AlertActionLink, Grid, GridItem, Stack, StackItem, Tab, Tabs, TabTitleText, Title } from '@patternfly/react-core';
import { useCallback, useMemo, useState, type ReactElement } from 'react';
import type { Options } from '../location';
import { ErrorNote } from '../parts/ErrorNote';
import { kFirstOperation } from '../parts/OperationBox';
import { Pending } from '../parts/Pending';
import { UserBox } from '../parts/UserBox';
import { texts } from '../texts';
import type { GroupMap } from '../tool/documents';
import { useAnswer, useSlow } from '../tool/use_answer';
import { Compare } from './Compare';
import { Entries } from './Entries';
import { FindBox } from './FindBox';
import { PathBox } from './PathBox';
import { Tree } from './Tree';
import { rowsOf } from './tree_state';
import { useMapWatch } from './use_map_watch';
import { useRights } from './use_rights';
import { useTree } from './use_tree';
import { Why } from './Why';
import { WhoCan } from './WhoCan';

interface Props {
  options: Options;
  go: (options: Options) => void;
}

const words = texts.permissions;

export function PermissionsView({ options, go }: Props): ReactElement {
  const { path = '', tab = 'entries', user = '', other = '', op = kFirstOperation, as = '' } = options;
  const [edition, setEdition] = useState(0); // counts the maps that were shown
  const change = useCallback((next: Options) => go({ ...options, ...next }), [go, options]);
  const select = useCallback((next: string) => change({ path: next }), [change]);
  const tree = useTree(path);
  const rights = useRights(as, tree.state, edition, tree.compare);
  useMapWatch(tree.compare);
  const isSlow = useSlow(tree.loading.size > 0);
  const groups = useAnswer<GroupMap>(['groupmap', 'show']);
  const users = useMemo(() => groups.answer?.users.map(({ name }) => name) ?? [], [groups.answer]);
  const rows = useMemo(() => rowsOf(tree.state), [tree.state]);
  const reload = () => {
    tree.reload();
    setEdition((now) => now + 1);
  };

  return (
    <Stack hasGutter>
      {tree.isOtherMap && (
        <Alert
          isInline
          variant="info"
          component="h2"
          id="map-changed"
          title={texts.mapChanged}
          actionLinks={<AlertActionLink onClick={reload}>{texts.reload}</AlertActionLink>}
        />
      )}
      <StackItem>
        <Grid hasGutter>
          <GridItem md={6}>
            <PathBox path={path} go={select} />
          </GridItem>
          <GridItem md={3}>
            <FindBox go={select} />
          </GridItem>
          <GridItem md={3}>
            <UserBox label={words.asUser} value={as} users={users} placeholder={words.everybody} choose={(name) => change({ as: name })} />
          </GridItem>
        </Grid>
      </StackItem>
      <StackItem>
        <Grid hasGutter>
          <GridItem md={6}>
            {isSlow && <Pending isPending isSlow cancel={tree.cancel} />}
            {tree.error && <ErrorNote error={tree.error} again={reload} />}
            {rights.error && <ErrorNote error={rights.error} again={reload} />}
            <Tree
              rows={rows}
              selected={path}
              loading={tree.loading}
              rights={rights.rights}
              select={select}
              setOpen={tree.setOpen}
              loadMore={tree.loadMore}
              inSight={rights.inSight}
            />
            {rights.rights && <p>{words.legend}</p>}
          </GridItem>
          <GridItem md={6}>
            <Title headingLevel="h1" id="folder">
              {path === '' ? words.root : path}
            </Title>
            <Tabs activeKey={tab} onSelect={(_event, key) => change({ tab: String(key) })} aria-label={words.tree}>
              {(['entries', 'why', 'who', 'compare'] as const).map((name) => (
                <Tab key={name} eventKey={name} title={<TabTitleText>{words.tabs[name]}</TabTitleText>}>
                  {tab === name && name === 'entries' && <Entries path={path} edition={edition} compare={tree.compare} go={select} />}
                  {tab === name && name === 'why' && <Why path={path} user={user} operation={op} users={users} edition={edition} change={change} />}
                  {tab === name && name === 'who' && <WhoCan path={path} edition={edition} operation={op} change={change} />}
                  {tab === name && name === 'compare' && <Compare path={path} first={user} second={other} users={users} edition={edition} compare={tree.compare} change={change} />}
                </Tab>
              ))}
            </Tabs>
          </GridItem>
        </Grid>
      </StackItem>
    </Stack>
  );
}
