// SPDX-License-Identifier: LGPL-3.0-or-later
// The entries that govern a path, with the folder that they come from.
import { Alert, Button } from '@patternfly/react-core';
import { useEffect, type ReactElement } from 'react';
import { DataTable } from '../parts/DataTable';
import { ErrorNote } from '../parts/ErrorNote';
import { Pending } from '../parts/Pending';
import { nameOf, texts } from '../texts';
import type { Acl, OfMap } from '../tool/documents';
import { useAnswer } from '../tool/use_answer';
import { onShare } from './tree_state';

interface Props {
  path: string;
  edition: number;
  compare: (map: OfMap) => void;
  go: (path: string) => void;
}

const words = texts.permissions;

export function Entries({ path, edition, compare, go }: Props): ReactElement {
  const { answer, error, again, ...pending } = useAnswer<Acl>(['map', 'acl', onShare(path)], edition);
  useEffect(() => {
    if (answer) compare(answer);
  }, [answer, compare]);
  return (
    <>
      <Pending {...pending} />
      {error && <ErrorNote error={error} again={again} />}
      {answer && !answer.in_map && <Alert isInline variant="info" component="h2" title={words.standsIn(path, answer.folder)} />}
      {answer && (
        <>
          <p className="source" data-of={answer.path}>
            {answer.inherited ? (
              <>
                {words.inheritedFrom}{' '}
                <Button variant="link" isInline onClick={() => go(answer.from.slice(1))}>
                  {answer.from}
                </Button>
              </>
            ) : (
              words.ownEntries
            )}
          </p>
          {answer.entries.length === 0 ? (
            <p>{words.noEntries}</p>
          ) : (
            <DataTable
              label={words.tabs.entries}
              columns={[words.columns.kind, words.columns.whom, words.columns.rights]}
              rows={answer.entries.map((entry, index) => ({
                key: `${entry.type} ${entry.id} ${index}`,
                cells: [words.kind[entry.type], nameOf(entry), entry.rights],
              }))}
            />
          )}
        </>
      )}
    </>
  );
}
