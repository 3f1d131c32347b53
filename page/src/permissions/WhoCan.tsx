// SPDX-License-Identifier: LGPL-3.0-or-later
// Who may perform an operation: each user, with the entry or the class that allows it.
import { ExpandableSection, Title } from '@patternfly/react-core';
import type { ReactElement } from 'react';
import { DataTable } from '../parts/DataTable';
import { ErrorNote } from '../parts/ErrorNote';
import { OperationBox } from '../parts/OperationBox';
import { Pending } from '../parts/Pending';
import { texts } from '../texts';
import type { Who } from '../tool/documents';
import { useAnswer } from '../tool/use_answer';
import { onShare } from './tree_state';

interface Props {
  path: string;
  operation: string;
  edition: number;
  change: (options: { op: string }) => void;
}

const words = texts.permissions;

export function WhoCan({ path, operation, edition, change }: Props): ReactElement {
  const { answer, error, again, ...pending } = useAnswer<Who>(['who', '--refused', operation, onShare(path)], edition);
  return (
    <>
      <OperationBox value={operation} choose={(op) => change({ op })} />
      <Pending {...pending} />
      {error && <ErrorNote error={error} again={again} />}
      {answer && (
        <div className="who">
          <Title headingLevel="h2" size="md">{words.may(answer.granted.length, answer.users)}</Title>
          <DataTable
            label={words.tabs.who}
            columns={[words.user, words.columns.through]}
            rows={answer.granted.map((asker) => ({
              key: asker.user,
              cells: [asker.user, asker.only_to_see ? `${asker.through} (${words.onlyToSee})` : asker.through],
            }))}
          />
          {answer.refused && answer.refused.length > 0 && (
            <ExpandableSection toggleText={`${words.mayNot}: ${texts.users(answer.refused.length)}`}>
              <DataTable
                label={words.mayNot}
                columns={[words.user, words.columns.reason]}
                rows={answer.refused.map((asker) => ({ key: asker.user, cells: [asker.user, asker.reason] }))}
              />
            </ExpandableSection>
          )}
          {answer.without_account.length > 0 && <p>{`${words.withoutAccount}: ${answer.without_account.join(', ')}`}</p>}
        </div>
      )}
    </>
  );
}
