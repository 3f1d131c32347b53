// SPDX-License-Identifier: LGPL-3.0-or-later
// The maps of the file server: the current one, those before it, one that is held, and refused ones.
import { Button, Card, CardBody, CardTitle, Stack, StackItem, Title } from '@patternfly/react-core';
import { useState, type ReactElement, type ReactNode } from 'react';
import type { Options } from '../location';
import { ErrorNote } from '../parts/ErrorNote';
import { Facts } from '../parts/Facts';
import { Pending } from '../parts/Pending';
import { sizeOf, texts, timeOf } from '../texts';
import { ask, tell } from '../tool/ask';
import type { HeldMap, KeptMap, MapHistory, MapInfo, Published, RefusedPairs } from '../tool/documents';
import { useAnswer } from '../tool/use_answer';
import { Confirm, type Change } from './Confirm';
import { Difference } from './Difference';
import { HeldCard } from './HeldCard';
import { KeptTable } from './KeptTable';
import { RefusedList } from './RefusedList';

interface Props {
  options: Options;
  go: (options: Options) => void;
}

const words = texts.maps;

function CurrentMap({ info }: { info: MapInfo }): ReactElement {
  const { map } = info;
  return (
    <Facts
      facts={[
        [words.name, map.name],
        [words.version, map.version],
        [words.generation, map.generation],
        [words.made, timeOf(map.time)],
        [words.holds, `${texts.folders(map.folders)}, ${texts.entries(map.aces)}`],
        [words.size, sizeOf(info.bytes)],
      ]}
    />
  );
}

// The held map may be another one by the time that somebody has looked at it.
function lookedAt({ image }: HeldMap): string {
  return `--checksum=${image.sha256}`;
}

function approval(held: HeldMap): Change {
  return {
    title: words.approve,
    question: words.ask.approve(texts.folders(held.image.folders)),
    isDangerous: false,
    run: async () => {
      await ask<Published>(['map', 'approve', '--yes', lookedAt(held)]).answer;
    },
  };
}

function rejection(held: HeldMap): Change {
  return {
    title: words.reject,
    question: words.ask.reject,
    isDangerous: true,
    run: () => tell(['map', 'reject', '--yes', lookedAt(held)]),
  };
}

function wayBack(map: KeptMap): Change {
  return {
    title: words.goBack(map.map),
    question: words.ask.rollback(map.map, texts.folders(map.image.folders)),
    isDangerous: true,
    run: async () => {
      await ask<Published>(['map', 'rollback', String(map.map), '--yes']).answer;
    },
  };
}

function Section({ title, children }: { title: string; children: ReactNode }): ReactElement {
  return (
    <StackItem>
      <Card component="section">
        <CardTitle component="h2">{title}</CardTitle>
        <CardBody>{children}</CardBody>
      </Card>
    </StackItem>
  );
}

const kHeld = 'held';

export function MapsView({ options, go }: Props): ReactElement {
  const info = useAnswer<MapInfo>(['map', 'info']);
  const history = useAnswer<MapHistory>(['map', 'history']);
  const refused = useAnswer<RefusedPairs>(['map', 'refused']);
  const [change, setChange] = useState<Change>();
  const { diff = '' } = options;
  const held = history.answer?.held;
  const maps = history.answer?.maps ?? [];
  const done = (isDone: boolean) => {
    setChange(undefined);
    if (isDone && diff === kHeld) go({});
    [info, refused, history].forEach((each) => each.again());
  };

  return (
    <Stack hasGutter>
      <Title headingLevel="h1">{texts.views.maps}</Title>
      {held && (
        <HeldCard
          held={held}
          show={() => go({ diff: kHeld })}
          approve={() => setChange(approval(held))}
          reject={() => setChange(rejection(held))}
        />
      )}
      {diff !== '' && (
        <Section title={diff === kHeld ? words.difference.heldTitle : words.difference.title(diff.replace('kept-', ''))}>
          {diff === kHeld ? <Difference from="current" to={kHeld} /> : <Difference from={diff} to="current" />}
          <Button variant="link" isInline onClick={() => go({})}>
            {words.close}
          </Button>
        </Section>
      )}
      <Section title={words.current}>
        <Pending {...info} />
        {info.error && <ErrorNote error={info.error} again={info.again} />}
        {info.answer && !info.error && <CurrentMap info={info.answer} />}
      </Section>
      <Section title={words.kept}>
        <Pending {...history} />
        {history.error && <ErrorNote error={history.error} again={history.again} />}
        {history.answer && maps.length === 0 && <p>{words.noKept}</p>}
        {maps.length > 0 && (
          <KeptTable maps={maps} show={(map) => go({ diff: `kept-${map.map}` })} goBack={(map) => setChange(wayBack(map))} />
        )}
      </Section>
      <Section title={words.refused}>
        <Pending {...refused} />
        {refused.error && <ErrorNote error={refused.error} again={refused.again} />}
        {refused.answer && <RefusedList refused={refused.answer} />}
      </Section>
      {change && <Confirm change={change} close={done} />}
    </Stack>
  );
}
