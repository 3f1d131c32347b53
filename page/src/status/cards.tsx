// SPDX-License-Identifier: LGPL-3.0-or-later
// The state of the file server, a card a topic.
import { Card, CardBody, CardTitle, Label, Progress } from '@patternfly/react-core';
import type { ReactElement, ReactNode } from 'react';
import { Facts } from '../parts/Facts';
import { sizeOf, texts, timeOf } from '../texts';
import type { Status } from '../tool/documents';

const words = texts.status;

function Topic({ title, children }: { title: string; children: ReactNode }): ReactElement {
  return (
    <Card isFullHeight component="section">
      <CardTitle component="h2">{title}</CardTitle>
      <CardBody>{children}</CardBody>
    </Card>
  );
}

export function MapCard({ status }: { status: Status }): ReactElement {
  const { map, inbox } = status.map;
  return (
    <Topic title={words.cards.map}>
      {map === undefined ? (
        words.noMap
      ) : (
        <Facts
          facts={[
            [words.size, `${texts.folders(map.folders)}, ${texts.entries(map.aces)}`],
            [words.generation, map.generation],
            [words.mapTime, timeOf(map.time)],
            inbox.waits_since !== undefined && [words.waits, timeOf(inbox.waits_since)],
            inbox.in_work_since !== undefined && [words.inWork, timeOf(inbox.in_work_since)],
          ]}
        />
      )}
      {inbox.refused > 0 && <p>{words.refused(inbox.refused)}</p>}
    </Topic>
  );
}

export function ServicesCard({ status }: { status: Status }): ReactElement {
  return (
    <Topic title={words.cards.services}>
      <Facts
        facts={status.services.map(
          (service) =>
            [
              service.name,
              <>
                <Label status={service.running ? 'success' : 'danger'}>{service.running ? words.runs : words.stopped}</Label>
                {service.last_work !== undefined && ` ${words.lastWork} ${timeOf(service.last_work)}`}
              </>,
            ] as const,
        )}
      />
    </Topic>
  );
}

export function BufferCard({ status }: { status: Status }): ReactElement {
  const { buffer } = status;
  const percent = buffer.bytes > 0 ? Math.round((100 * buffer.used) / buffer.bytes) : 0;
  return (
    <Topic title={words.cards.buffer}>
      {buffer.exists ? (
        <>
          <Progress value={percent} title={texts.events(buffer.records)} valueText={words.fill(percent)} size="sm" />
          {buffer.oldest !== undefined && <p>{`${words.oldest} ${timeOf(buffer.oldest)}`}</p>}
        </>
      ) : (
        words.noBuffer
      )}
    </Topic>
  );
}

export function DumpsCard({ status }: { status: Status }): ReactElement {
  const line = (dumps: Status['events']) =>
    dumps.readable
      ? `${words.waiting(dumps.count, sizeOf(dumps.bytes))}${dumps.oldest === undefined ? '' : `, ${words.oldest} ${timeOf(dumps.oldest)}`}`
      : words.unreadable;
  return (
    <Topic title={words.cards.dumps}>
      <Facts
        facts={[
          [words.events, line(status.events)],
          [words.audits, line(status.audits)],
        ]}
      />
    </Topic>
  );
}

function alarmWord(raised: boolean | undefined): string {
  if (raised === undefined) return words.alarm.unknown;
  return raised ? words.alarm.raised : words.alarm.quiet;
}

export function AlarmsCard({ status }: { status: Status }): ReactElement {
  return (
    <Topic title={words.cards.markers}>
      <Facts
        facts={status.alarms.map(
          (alarm) =>
            [
              words.alarmNames[alarm.name] ?? alarm.name,
              <>
                <Label status={alarm.raised === true ? 'warning' : 'success'}>{alarmWord(alarm.raised)}</Label>
                {alarm.since !== undefined && ` ${timeOf(alarm.since)}`}
                {alarm.reason !== undefined && <p>{alarm.reason}</p>}
              </>,
            ] as const,
        )}
      />
    </Topic>
  );
}

export function SpaceCard({ status }: { status: Status }): ReactElement {
  return (
    <Topic title={words.cards.space}>
      <Facts facts={status.disks.map((disk) => [disk.folder, `${words.free(sizeOf(disk.free), sizeOf(disk.bytes))} (${disk.purpose})`] as const)} />
    </Topic>
  );
}
