// SPDX-License-Identifier: LGPL-3.0-or-later
// Well, warning or critical: a word and a sign, not a colour alone.
import { Label } from '@patternfly/react-core';
import type { ReactElement } from 'react';
import { texts } from '../texts';
import type { Level } from '../tool/documents';

const kStatus = { well: 'success', warning: 'warning', critical: 'danger' } as const;

export function LevelLabel({ level }: { level: Level }): ReactElement {
  return <Label status={kStatus[level]}>{texts.status.level[level]}</Label>;
}
