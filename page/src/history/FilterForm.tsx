// SPDX-License-Identifier: LGPL-3.0-or-later
// Path, user, operation and period of the records.
import { FormGroup, FormSelect, FormSelectOption, Grid, GridItem, TextInput } from '@patternfly/react-core';
import { useEffect, useId, useState, type ReactElement } from 'react';
import { UserBox } from '../parts/UserBox';
import { historyTexts } from '../texts';
import type { Filter } from './filter';

interface Props {
  filter: Filter;
  users: string[];
  change: (next: Partial<Filter>) => void;
}

interface ChoiceProps {
  label: string;
  value: string;
  values: Record<string, string>;
  choose: (value: string) => void;
}

function Choice({ label, value, values, choose }: ChoiceProps): ReactElement {
  const id = useId();
  return (
    <FormGroup label={label} fieldId={id}>
      <FormSelect id={id} value={value} onChange={(_event, next) => choose(next)}>
        {Object.entries(values).map(([each, name]) => (
          <FormSelectOption key={each} value={each} label={name} />
        ))}
      </FormSelect>
    </FormGroup>
  );
}

export function FilterForm({ filter, users, change }: Props): ReactElement {
  const id = useId();
  const [path, setPath] = useState(filter.path);
  useEffect(() => setPath(filter.path), [filter.path]);
  const take = () => {
    if (path !== filter.path) change({ path });
  };
  return (
    <Grid hasGutter>
      <GridItem md={5}>
        <FormGroup label={historyTexts.path} fieldId={id}>
          <TextInput
            id={id}
            value={path}
            placeholder={historyTexts.pathHint}
            onChange={(_event, value) => setPath(value)}
            onBlur={take}
            onKeyDown={(event) => {
              if (event.key === 'Enter') take();
            }}
          />
        </FormGroup>
      </GridItem>
      <GridItem md={3}>
        <UserBox label={historyTexts.user} value={filter.user} users={users} choose={(user) => change({ user })} />
      </GridItem>
      <GridItem md={2}>
        <Choice label={historyTexts.operation} value={filter.op} values={historyTexts.operations} choose={(op) => change({ op })} />
      </GridItem>
      <GridItem md={2}>
        <Choice label={historyTexts.period} value={filter.since} values={historyTexts.periods} choose={(since) => change({ since })} />
      </GridItem>
    </Grid>
  );
}
