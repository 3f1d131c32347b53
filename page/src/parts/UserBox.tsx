// SPDX-License-Identifier: LGPL-3.0-or-later
// A box for the name of a user, with the users of the group list map to choose from.
import { FormGroup, TextInput } from '@patternfly/react-core';
import { useEffect, useId, useState, type ReactElement } from 'react';

interface Props {
  label: string;
  value: string;
  users: string[];
  placeholder?: string;
  choose: (user: string) => void;
}

// A name is taken with Enter, when the box is left, and at once when it is one of the list.
export function UserBox({ label, value, users, placeholder, choose }: Props): ReactElement {
  const id = useId();
  const [typed, setTyped] = useState(value);
  useEffect(() => setTyped(value), [value]);
  const take = (user: string) => {
    if (user !== value) choose(user);
  };
  return (
    <FormGroup label={label} fieldId={id}>
      <TextInput
        id={id}
        value={typed}
        placeholder={placeholder}
        list={`${id}-users`}
        autoComplete="off"
        onChange={(_event, user) => {
          setTyped(user);
          if (users.includes(user)) take(user);
        }}
        onBlur={() => take(typed.trim())}
        onKeyDown={(event) => {
          if (event.key === 'Enter') take(typed.trim());
        }}
      />
      <datalist id={`${id}-users`}>
        {users.map((user) => (
          <option key={user} value={user} />
        ))}
      </datalist>
    </FormGroup>
  );
}
