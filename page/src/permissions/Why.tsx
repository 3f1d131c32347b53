// SPDX-License-Identifier: LGPL-3.0-or-later
// Why may a user do something, or not: the sentence, the steps, and what would turn the verdict.
import { Alert, List, ListItem, Title } from '@patternfly/react-core';
import type { ReactElement } from 'react';
import { DataTable } from '../parts/DataTable';
import { ErrorNote } from '../parts/ErrorNote';
import { Facts } from '../parts/Facts';
import { OperationBox } from '../parts/OperationBox';
import { Pending } from '../parts/Pending';
import { UserBox } from '../parts/UserBox';
import { nameOf, rightsOf, texts } from '../texts';
import type { Check } from '../tool/documents';
import { useAnswer } from '../tool/use_answer';
import { onShare } from './tree_state';

interface Props {
  path: string;
  user: string;
  operation: string;
  users: string[];
  edition: number;
  change: (options: { user?: string; op?: string }) => void;
}

const words = texts.permissions;

function verdictOf(check: Check): { title: string; variant: 'success' | 'info' | 'warning' } {
  if (check.verdict === 'granted') {
    return { title: check.only_to_see ? `${words.granted} (${words.onlyToSee})` : words.granted, variant: 'success' };
  }
  // Refused is an answer, not an error.
  return check.verdict === 'refused' ? { title: words.refused, variant: 'info' } : { title: words.noVerdict, variant: 'warning' };
}

function Steps({ check }: { check: Check }): ReactElement {
  const { object, caller } = check;
  return (
    <>
      <Title headingLevel="h2" size="md">{words.steps}</Title>
      <Facts
        facts={[
          [words.caller, `${caller.user ?? caller.uid}${caller.class === undefined ? '' : `, ${caller.class}`}`],
          check.area !== undefined && [words.area, check.area],
          check.rule !== undefined && [words.rule, check.rule],
          object.folder !== undefined && [words.ruledBy, object.folder],
          object.mask !== undefined && [words.rightsThere, rightsOf(object.mask)],
          check.parent?.mask !== undefined && [words.parentFolder, `${check.parent.folder}: ${rightsOf(check.parent.mask)}`],
        ]}
      />
      {object.entries !== undefined && object.entries.length > 0 && (
        <DataTable
          label={words.steps}
          columns={[words.columns.whom, words.columns.rights, words.columns.counts]}
          rows={object.entries.map((entry, index) => ({
            key: String(index),
            cells: [`${words.kind[entry.kind]} ${nameOf(entry)}`, rightsOf(entry.mask), entry.why],
          }))}
        />
      )}
    </>
  );
}

function Turning({ check }: { check: Check }): ReactElement | null {
  if (check.verdict === 'refused') {
    return (
      <>
        <Title headingLevel="h2" size="md">{words.wouldGrant}</Title>
        {check.would_grant.length === 0 ? (
          <p>{words.nothingGrants}</p>
        ) : (
          <List>
            {check.would_grant.map(({ folder, right, whom }) => (
              <ListItem key={`${folder} ${right} ${whom.id}`}>{words.give(right, `${words.kind[whom.kind]} ${nameOf(whom)}`, folder)}</ListItem>
            ))}
          </List>
        )}
      </>
    );
  }
  if (check.would_refuse.length === 0) return null;
  return (
    <>
      <Title headingLevel="h2" size="md">{words.wouldRefuse}</Title>
      <List>
        {check.would_refuse.map(({ folder, whom, mask }) => (
          <ListItem key={`${folder} ${whom.id}`}>{words.take(rightsOf(mask), `${words.kind[whom.kind]} ${nameOf(whom)}`, folder)}</ListItem>
        ))}
      </List>
    </>
  );
}

export function Why({ path, user, operation, users, edition, change }: Props): ReactElement {
  const question = user === '' ? undefined : ['check', '--explain', `--user=${user}`, operation, onShare(path)];
  const { answer, error, again, ...pending } = useAnswer<Check>(question, edition);
  const verdict = answer && verdictOf(answer);
  return (
    <>
      <UserBox label={words.user} value={user} users={users} choose={(name) => change({ user: name })} />
      <OperationBox value={operation} choose={(op) => change({ op })} />
      <Pending {...pending} />
      {user === '' && <p>{words.chooseUser}</p>}
      {error && <ErrorNote error={error} again={again} />}
      {user !== '' && answer && verdict && (
        <div className="why" data-of={answer.path}>
          <Alert isInline variant={verdict.variant} title={verdict.title} component="h2" data-verdict={answer.verdict}>
            {answer.reason}
          </Alert>
          <Turning check={answer} />
          <Steps check={answer} />
        </div>
      )}
    </>
  );
}
