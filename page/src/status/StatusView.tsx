// SPDX-License-Identifier: LGPL-3.0-or-later
// Is it well? One line, what to do about each warning, and the state by topic.
import { Alert, Gallery, Stack, StackItem, Title } from '@patternfly/react-core';
import { useEffect, type ReactElement } from 'react';
import { ErrorNote } from '../parts/ErrorNote';
import { Pending } from '../parts/Pending';
import { texts, timeOf } from '../texts';
import type { Finding, Status } from '../tool/documents';
import { useAnswer } from '../tool/use_answer';
import { useVisible } from '../visible';
import { AlarmsCard, BufferCard, DumpsCard, MapCard, ServicesCard, SpaceCard } from './cards';
import { LevelLabel } from './LevelLabel';

const kEvery = 10_000; // milliseconds between two looks

function FindingNote({ finding }: { finding: Finding }): ReactElement {
  return (
    <Alert isInline variant={finding.level === 'critical' ? 'danger' : 'warning'} title={finding.sentence} component="h2">
      {finding.advice}
    </Alert>
  );
}

export function StatusView(): ReactElement {
  const isVisible = useVisible();
  const { answer: status, error, again, ...pending } = useAnswer<Status>(isVisible ? ['status'] : undefined);
  useEffect(() => {
    if (!isVisible) return undefined;
    const timer = setInterval(again, kEvery);
    return () => clearInterval(timer);
  }, [isVisible, again]);

  return (
    <Stack hasGutter>
      {error && <ErrorNote error={error} again={again} />}
      {status === undefined && <Pending {...pending} />}
      {status && (
        <>
          <StackItem>
            <Title headingLevel="h1" id="verdict">
              {texts.status.verdict[status.level]} <LevelLabel level={status.level} /> <small>{texts.status.asOf(timeOf(status.time))}</small>
            </Title>
          </StackItem>
          {status.findings.map((finding) => (
            <StackItem key={finding.id + finding.sentence}>
              <FindingNote finding={finding} />
            </StackItem>
          ))}
          <StackItem>
            <Gallery hasGutter minWidths={{ default: '360px' }}>
              <MapCard status={status} />
              <ServicesCard status={status} />
              <BufferCard status={status} />
              <DumpsCard status={status} />
              <AlarmsCard status={status} />
              <SpaceCard status={status} />
            </Gallery>
          </StackItem>
        </>
      )}
    </Stack>
  );
}
