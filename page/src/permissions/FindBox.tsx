// SPDX-License-Identifier: LGPL-3.0-or-later
// A search for folders by a part of their name, in the service.
import { Button, FormGroup, InputGroup, InputGroupItem, List, ListItem, TextInput } from '@patternfly/react-core';
import { useId, useState, type ReactElement } from 'react';
import { ErrorNote } from '../parts/ErrorNote';
import { Pending } from '../parts/Pending';
import { texts } from '../texts';
import type { Found } from '../tool/documents';
import { useAnswer } from '../tool/use_answer';

interface Props {
  go: (path: string) => void;
}

const words = texts.permissions;

function Results({ found, go }: { found: Found; go: (path: string) => void }): ReactElement {
  if (found.matches === 0) return <p id="matches" data-of={found.text}>{words.nothingFound}</p>;
  return (
    <>
      <p id="matches" data-of={found.text}>{words.matches(found.matches, found.folders.length)}</p>
      <List isPlain className="results" aria-label={words.find}>
        {found.folders.map(({ path }) => (
          <ListItem key={path}>
            <Button variant="link" isInline onClick={() => go(path.slice(1))}>
              {path.slice(1)}
            </Button>
          </ListItem>
        ))}
      </List>
    </>
  );
}

export function FindBox({ go }: Props): ReactElement {
  const id = useId();
  const [typed, setTyped] = useState('');
  const [text, setText] = useState('');
  const { answer, error, again, ...pending } = useAnswer<Found>(text === '' ? undefined : ['map', 'find', '--', text]);
  return (
    <FormGroup label={words.find} fieldId={id} className="find">
      <InputGroup>
        <InputGroupItem isFill>
          <TextInput
            id={id}
            type="search"
            value={typed}
            placeholder={words.findHint}
            onChange={(_event, value) => setTyped(value)}
            onKeyDown={(event) => {
              if (event.key === 'Enter') setText(typed.trim());
            }}
          />
        </InputGroupItem>
        <InputGroupItem>
          <Button variant="control" onClick={() => setText(typed.trim())}>
            {words.search}
          </Button>
        </InputGroupItem>
      </InputGroup>
      <Pending {...pending} />
      {error && <ErrorNote error={error} again={again} />}
      {text !== '' && answer && (
        <>
          <Results found={answer} go={go} />
          <Button
            variant="link"
            onClick={() => {
              setText('');
              setTyped('');
            }}
          >
            {words.closeResults}
          </Button>
        </>
      )}
    </FormGroup>
  );
}
