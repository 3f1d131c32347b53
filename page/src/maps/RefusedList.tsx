// SPDX-License-Identifier: LGPL-3.0-or-later
// Maps that the loader refused, with what the checks found in their files.
import { ExpandableSection, Title } from '@patternfly/react-core';
import { useState, type ReactElement } from 'react';
import { DataTable } from '../parts/DataTable';
import { Facts } from '../parts/Facts';
import { sizeOf, texts, timeOf } from '../texts';
import type { LintFinding, RefusedPair, RefusedPairs } from '../tool/documents';

const words = texts.maps;
const kMost = 20; // findings of one map

function Findings({ label, findings, all }: { label: string; findings: LintFinding[]; all: number }): ReactElement {
  const { severity, file, place, text } = words.findingColumns;
  return (
    <>
      <DataTable
        label={label}
        columns={[severity, file, place, text]}
        rows={findings.slice(0, kMost).map((finding, index) => ({
          key: String(index),
          cells: [words.severity[finding.severity], finding.file ?? '', words.place(finding.path, finding.offset), finding.text],
        }))}
      />
      {all > kMost && <p>{words.difference.first(Math.min(kMost, findings.length), all)}</p>}
    </>
  );
}

function Pair({ pair, isNewest }: { pair: RefusedPair; isNewest: boolean }): ReactElement {
  const [isOpen, setOpen] = useState(isNewest);
  const { errors = 0, warnings = 0, findings = [], details } = pair;
  const label = findings.length > 0 ? words.findings(errors, warnings) : words.details;
  return (
    <div className="refused">
      <Title headingLevel="h3" size="md">{`${timeOf(pair.time)}: ${pair.reason}`}</Title>
      <Facts
        facts={[
          [words.folder, pair.folder],
          [words.files, pair.files.map(({ name, bytes }) => words.file(name, sizeOf(bytes))).join('; ') || words.noFiles],
        ]}
      />
      {(findings.length > 0 || details !== undefined) && (
        <ExpandableSection toggleText={label} isExpanded={isOpen} onToggle={(_event, next) => setOpen(next)}>
          {findings.length > 0 ? <Findings label={label} findings={findings} all={errors + warnings} /> : <pre>{details}</pre>}
        </ExpandableSection>
      )}
    </div>
  );
}

export function RefusedList({ refused }: { refused: RefusedPairs }): ReactElement {
  if (refused.count === 0) return <p>{words.noRefused}</p>;
  return (
    <>
      <p>{`${words.refusedCount(refused.count)} ${words.refusedAdvice}`}</p>
      {refused.pairs.map((pair, index) => (
        <Pair key={pair.folder} pair={pair} isNewest={index === 0} />
      ))}
      {refused.more && <p>{words.newest(refused.pairs.length)}</p>}
    </>
  );
}
