// SPDX-License-Identifier: LGPL-3.0-or-later
// The maps that were in force, the newest first.
import { Button, Label } from '@patternfly/react-core';
import type { ReactElement } from 'react';
import { DataTable } from '../parts/DataTable';
import { texts, timeOf } from '../texts';
import type { KeptMap } from '../tool/documents';

interface Props {
  maps: KeptMap[];
  show: (map: KeptMap) => void;
  goBack: (map: KeptMap) => void;
}

const words = texts.maps;

function wayOf(map: KeptMap): string {
  return `${words.how[map.how] ?? map.how}${map.who === undefined ? '' : words.by(map.who)}`;
}

function usersOf({ changes }: KeptMap): string {
  return changes?.users_touched === undefined ? texts.unknown : words.touched(changes.users_touched, changes.users ?? 0);
}

export function KeptTable({ maps, show, goBack }: Props): ReactElement {
  const { number, time, generation, folders, users, how, actions } = words.columns;
  return (
    <DataTable
      label={words.kept}
      columns={[number, time, generation, folders, users, how, actions]}
      rows={[...maps].reverse().map((map) => ({
        key: String(map.map),
        cells: [
          map.map,
          timeOf(map.since),
          map.image.generation,
          map.image.folders.toLocaleString('en'),
          usersOf(map),
          wayOf(map),
          map.in_force ? (
            <Label status="success">{words.inForce}</Label>
          ) : (
            <>
              <Button variant="link" isInline onClick={() => show(map)}>
                {words.compare(map.map)}
              </Button>{' '}
              <Button variant="link" isInline onClick={() => goBack(map)}>
                {words.goBack(map.map)}
              </Button>
            </>
          ),
        ],
      }))}
    />
  );
}
