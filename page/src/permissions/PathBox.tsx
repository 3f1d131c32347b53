// SPDX-License-Identifier: LGPL-3.0-or-later
// The path that is shown, to be typed or copied.
import { Button, FormGroup, InputGroup, InputGroupItem, TextInput } from '@patternfly/react-core';
import { useEffect, useId, useState, type ReactElement } from 'react';
import { texts } from '../texts';

interface Props {
  path: string;
  go: (path: string) => void;
}

// As people type paths: a client's, the server's, or relative to the share.
export function sharePath(text: string): string {
  const slashes = text.trim().replaceAll('\\', '/').replace(/^\/tavrix(?=\/|$)/, '');
  return slashes.split('/').filter((name) => name !== '').join('/');
}

export function PathBox({ path, go }: Props): ReactElement {
  const id = useId();
  const [typed, setTyped] = useState(path);
  useEffect(() => setTyped(path), [path]);
  return (
    <FormGroup label={texts.permissions.path} fieldId={id}>
      <InputGroup>
        <InputGroupItem isFill>
          <TextInput
            id={id}
            value={typed}
            placeholder={texts.permissions.pathHint}
            onChange={(_event, value) => setTyped(value)}
            onKeyDown={(event) => {
              if (event.key === 'Enter') go(sharePath(typed));
            }}
          />
        </InputGroupItem>
        <InputGroupItem>
          <Button variant="control" onClick={() => go(sharePath(typed))}>
            {texts.permissions.open}
          </Button>
        </InputGroupItem>
      </InputGroup>
    </FormGroup>
  );
}
