// SPDX-License-Identifier: LGPL-3.0-or-later
// How much happened, a bar a step, and what stands out.
import { Alert } from '@patternfly/react-core';
import type { ReactElement } from 'react';
import { historyTexts, texts, timeOf } from '../texts';
import type { Activity } from '../tool/documents';

const kHeight = 80;

export function ActivityPicture({ activity }: { activity: Activity }): ReactElement {
  const { activity: steps, counts, notices, step } = activity;
  const most = Math.max(1, ...steps.map(({ records }) => records));
  return (
    <>
      <svg
        className="activity"
        role="img"
        aria-label={historyTexts.activity(texts.events(counts.records), step)}
        viewBox={`0 0 ${Math.max(steps.length, 1)} ${kHeight}`}
        preserveAspectRatio="none"
      >
        {steps.map(({ time, records }, index) => {
          const height = (kHeight * records) / most;
          return (
            <rect key={time} x={index + 0.1} width={0.8} y={kHeight - height} height={height}>
              <title>{`${timeOf(time)}: ${texts.events(records)}`}</title>
            </rect>
          );
        })}
      </svg>
      <p>{`${historyTexts.activity(texts.events(counts.records), step)}. ${historyTexts.ofAll}`}</p>
      {notices.slice(0, 5).map((notice) => (
        <Alert key={`${notice.time} ${notice.text}`} isInline variant="warning" component="h2" title={notice.text} data-kind={notice.kind}>
          {timeOf(notice.time)}
        </Alert>
      ))}
    </>
  );
}
