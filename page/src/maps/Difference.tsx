// SPDX-License-Identifier: LGPL-3.0-or-later
// What changed between two maps, and who gains and who loses by it.
import { Title } from '@patternfly/react-core';
import type { ReactElement, ReactNode } from 'react';
import { DataTable } from '../parts/DataTable';
import { ErrorNote } from '../parts/ErrorNote';
import { Pending } from '../parts/Pending';
import { nameOf, texts } from '../texts';
import type { MapDiff } from '../tool/documents';
import { useAnswer } from '../tool/use_answer';

interface Props {
  from: string; // as "map diff" names maps
  to: string;
}

const words = texts.maps.difference;
const kMost = 200; // rows of a table

interface PartProps {
  title: string;
  columns: string[];
  rows: ReactNode[][];
}

function Part({ title, columns, rows }: PartProps): ReactElement | null {
  if (rows.length === 0) return null;
  return (
    <>
      <Title headingLevel="h3" size="md">
        {title}
      </Title>
      <DataTable label={title} columns={columns} rows={rows.slice(0, kMost).map((cells, index) => ({ key: String(index), cells }))} />
      {rows.length > kMost && <p>{words.first(kMost, rows.length)}</p>}
    </>
  );
}

function Folders({ diff }: { diff: MapDiff }): ReactElement {
  const { path, from, folders, whom, before, after } = words.columns;
  if (diff.same) return <p>{words.same}</p>;
  return (
    <>
      <Part title={words.removed} columns={[path, folders]} rows={diff.removed.map((each) => [each.path, each.folders])} />
      <Part title={words.added} columns={[path, folders]} rows={diff.added.map((each) => [each.path, each.folders])} />
      <Part title={words.moved} columns={[from, path, folders]} rows={diff.moved.map((each) => [each.from, each.to, each.folders])} />
      <Part
        title={words.changed}
        columns={[path, whom, before, after]}
        rows={diff.changed.flatMap((each) =>
          each.entries.map((entry) => [each.path, nameOf(entry), entry.old_rights ?? texts.none, entry.new_rights ?? texts.none]),
        )}
      />
    </>
  );
}

function Rights({ diff }: { diff: MapDiff }): ReactElement {
  const changes = diff.effective ?? [];
  const { path, whom, gains, loses } = words.columns;
  if (changes.length === 0) return <p>{words.nobody}</p>;
  return (
    <Part
      title={words.rights}
      columns={[path, whom, gains, loses]}
      rows={changes.map((each) => [
        `${each.path} (${each.reach})`,
        each.whom.map(nameOf).join(', '),
        each.gained_rights.join(', '),
        each.lost_rights.join(', '),
      ])}
    />
  );
}

export function Difference({ from, to }: Props): ReactElement {
  const folders = useAnswer<MapDiff>(['map', 'diff', from, to]);
  const rights = useAnswer<MapDiff>(['map', 'diff', from, to, '--effective']);
  return (
    <div className="difference">
      <Pending {...folders} />
      {folders.error && <ErrorNote error={folders.error} again={folders.again} />}
      {folders.answer && <Folders diff={folders.answer} />}
      <Pending {...rights} />
      {rights.error && <ErrorNote error={rights.error} again={rights.again} />}
      {rights.answer && <Rights diff={rights.answer} />}
    </div>
  );
}
