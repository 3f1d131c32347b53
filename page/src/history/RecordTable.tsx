// SPDX-License-Identifier: LGPL-3.0-or-later
// Records, the newest first.
import { Button } from '@patternfly/react-core';
import type { ReactElement } from 'react';
import { DataTable } from '../parts/DataTable';
import { historyTexts, texts, timeOf } from '../texts';
import type { EventRecord } from '../tool/documents';

interface Props {
  records: EventRecord[];
  show: (path: string) => void;
}

export function whoOf({ uid, user_name: name }: EventRecord): string {
  return name ?? String(uid);
}

export function RecordTable({ records, show }: Props): ReactElement {
  const { time, user, done, path, newPath, node } = historyTexts.columns;
  const hasNodes = records.some((record) => record.node !== undefined);
  return (
    <DataTable
      label={texts.views.history}
      columns={[time, user, done, path, newPath, ...(hasNodes ? [node] : [])]}
      rows={records.map((record) => ({
        key: `${record.done} ${record.id}`,
        cells: [
          timeOf(record.time),
          whoOf(record),
          historyTexts.done[record.done],
          <Button key="life" variant="link" isInline onClick={() => show(record.path)}>
            {record.path}
          </Button>,
          record.new_path ?? '',
          ...(hasNodes ? [record.node ?? ''] : []),
        ],
      }))}
    />
  );
}
