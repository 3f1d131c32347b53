// SPDX-License-Identifier: LGPL-3.0-or-later
// The life of one file or folder, through its renames.
import { ProgressStep, ProgressStepper } from '@patternfly/react-core';
import type { ReactElement } from 'react';
import { ErrorNote } from '../parts/ErrorNote';
import { Pending } from '../parts/Pending';
import { historyTexts, timeOf } from '../texts';
import type { Life, Lives } from '../tool/documents';
import { useAnswer } from '../tool/use_answer';
import { whoOf } from './RecordTable';

function Line({ life }: { life: Life }): ReactElement {
  return (
    <>
      {life.steps_left_off > 0 && <p>{historyTexts.leftOff(life.steps_left_off)}</p>}
      <ProgressStepper isVertical aria-label={historyTexts.life(life.last_path)}>
        {life.steps.map(({ event, path, new_path: newPath, record }, index) => (
          <ProgressStep
            key={String(index)}
            id={`step-${index}`}
            titleId={`step-title-${index}`}
            variant={event.startsWith('deleted') ? 'danger' : 'info'}
            aria-label={historyTexts.events[event] ?? event}
            description={`${timeOf(record.time)} ${historyTexts.by(whoOf(record), record.node)}`}
          >
            {`${historyTexts.events[event] ?? event}: ${path}${newPath === undefined ? '' : ` → ${newPath}`}`}
          </ProgressStep>
        ))}
      </ProgressStepper>
      <p>{historyTexts.endings[life.ending]}</p>
    </>
  );
}

export function LifeLine({ path }: { path: string }): ReactElement {
  const { answer, error, again, ...pending } = useAnswer<Lives>(['history', 'file', path]);
  return (
    <div className="life">
      <Pending {...pending} />
      {error && <ErrorNote error={error} again={again} />}
      {answer?.lives.map((life) => (
        <Line key={life.last_path} life={life} />
      ))}
    </div>
  );
}
