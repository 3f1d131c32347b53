// SPDX-License-Identifier: LGPL-3.0-or-later
// A choice of the operation that a question is about.
import { FormGroup, FormSelect, FormSelectOption } from '@patternfly/react-core';
import { useId, type ReactElement } from 'react';
import { texts } from '../texts';

// People's words, which the tool understands.
const kOperations = ['read', 'write', 'list', 'create', 'mkdir', 'delete', 'rmdir', 'stat'];
export const kFirstOperation = 'read';

interface Props {
  value: string;
  choose: (operation: string) => void;
}

export function OperationBox({ value, choose }: Props): ReactElement {
  const id = useId();
  return (
    <FormGroup label={texts.permissions.operation} fieldId={id}>
      <FormSelect id={id} value={value} onChange={(_event, operation) => choose(operation)}>
        {kOperations.map((operation) => (
          <FormSelectOption key={operation} value={operation} label={operation} />
        ))}
      </FormSelect>
    </FormGroup>
  );
}
