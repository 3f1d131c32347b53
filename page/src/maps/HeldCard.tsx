// SPDX-License-Identifier: LGPL-3.0-or-later
// A map that waits for approval, and why.
import { Alert, Button, Flex } from '@patternfly/react-core';
import type { ReactElement } from 'react';
import { Facts } from '../parts/Facts';
import { texts, timeOf } from '../texts';
import type { HeldMap } from '../tool/documents';

interface Props {
  held: HeldMap;
  show: () => void;
  approve: () => void;
  reject: () => void;
}

const words = texts.maps;

export function HeldCard({ held, show, approve, reject }: Props): ReactElement {
  const { changes, image } = held;
  return (
    <Alert isInline variant="warning" title={words.held} component="h2" id="held">
      <p>{held.reason}</p>
      <Facts
        facts={[
          [words.heldSince, timeOf(held.since)],
          [words.holds, `${texts.folders(image.folders)}, ${texts.entries(image.aces)}`],
          changes && [words.changes, words.counts(changes.removed, changes.added, changes.moved, changes.changed)],
          changes?.users_touched !== undefined && [words.columns.users, words.touched(changes.users_touched, changes.users ?? 0)],
        ]}
      />
      <Flex>
        <Button variant="secondary" onClick={show}>
          {words.compareHeld}
        </Button>
        <Button variant="primary" onClick={approve}>
          {words.approve}
        </Button>
        <Button variant="danger" onClick={reject}>
          {words.reject}
        </Button>
      </Flex>
    </Alert>
  );
}
