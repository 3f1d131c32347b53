// SPDX-License-Identifier: LGPL-3.0-or-later
// Who did it, and when.
import { Button, Card, CardBody, CardTitle, Flex, Stack, StackItem, Title } from '@patternfly/react-core';
import { useMemo, useState, type ReactElement } from 'react';
import type { Options } from '../location';
import { ErrorNote } from '../parts/ErrorNote';
import { Pending } from '../parts/Pending';
import { historyTexts, texts } from '../texts';
import { asToolError, text, type ToolError } from '../tool/ask';
import type { Activity, GroupMap } from '../tool/documents';
import { useAnswer, useSlow } from '../tool/use_answer';
import { ActivityPicture } from './ActivityPicture';
import { filterIn, wordsOf } from './filter';
import { FilterForm } from './FilterForm';
import { LifeLine } from './LifeLine';
import { RecordTable } from './RecordTable';
import { save } from './save';
import { useRecords } from './use_records';

interface Props {
  options: Options;
  go: (options: Options) => void;
}

export function HistoryView({ options, go }: Props): ReactElement {
  const filter = filterIn(options);
  const words = wordsOf(filter);
  const { file = '' } = options;
  const found = useRecords(words);
  const activity = useAnswer<Activity>(['history', 'report', `--since=${filter.since}`]);
  const groups = useAnswer<GroupMap>(['groupmap', 'show']);
  const users = useMemo(() => groups.answer?.users.map(({ name }) => name) ?? [], [groups.answer]);
  const isSlow = useSlow(found.isPending);
  const [saving, setSaving] = useState<ToolError>();
  const saveAll = async (): Promise<void> => {
    try {
      save('history.csv', await text(['history', 'search', ...words, '--csv']));
      setSaving(undefined);
    } catch (problem) {
      setSaving(asToolError(problem));
    }
  };

  return (
    <Stack hasGutter>
      <Title headingLevel="h1">{texts.views.history}</Title>
      <FilterForm filter={filter} users={users} change={(next) => go({ ...options, ...next })} />
      {file !== '' && (
        <StackItem>
          <Card component="section">
            <CardTitle component="h2">{historyTexts.life(file)}</CardTitle>
            <CardBody>
              <LifeLine path={file} />
              <Button variant="link" isInline onClick={() => go({ ...options, file: '' })}>
                {historyTexts.close}
              </Button>
            </CardBody>
          </Card>
        </StackItem>
      )}
      {activity.answer && <ActivityPicture activity={activity.answer} />}
      {activity.error && !found.error && <ErrorNote error={activity.error} again={activity.again} />}
      <Pending isPending={found.isPending} isSlow={isSlow} cancel={found.cancel} />
      {found.error && <ErrorNote error={found.error} again={found.again} />}
      {saving && <ErrorNote error={saving} />}
      {found.records && found.records.length === 0 && <p>{historyTexts.nothing}</p>}
      {found.records && found.records.length > 0 && (
        <>
          <RecordTable records={found.records} show={(path) => go({ ...options, file: path })} />
          <Flex>
            {found.next !== undefined && (
              <Button variant="secondary" isDisabled={found.isPending} onClick={found.more}>
                {historyTexts.more}
              </Button>
            )}
            <Button variant="link" onClick={() => void saveAll()}>
              {historyTexts.csv}
            </Button>
          </Flex>
        </>
      )}
    </Stack>
  );
}
