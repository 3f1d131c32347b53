// SPDX-License-Identifier: LGPL-3.0-or-later
// An error in the view that it is about: a sentence, what to do, and the technical text folded.
import { Alert, AlertActionLink, ExpandableSection } from '@patternfly/react-core';
import type { ReactElement } from 'react';
import { texts } from '../texts';
import { kCancelled, type ToolError } from '../tool/ask';

interface Props {
  error: ToolError;
  again?: () => void;
}

export function ErrorNote({ error, again }: Props): ReactElement {
  const known = texts.errors[error.code] ?? texts.errors['other'];
  const detail = [error.message, error.detail].filter((text) => text !== '').join('\n');
  return (
    <Alert
      variant={error.code === kCancelled ? 'info' : 'danger'}
      isInline
      title={error.code === 'failed' ? error.message : (known?.title ?? '')}
      component="h2"
      className="error-note"
      data-code={error.code}
      actionLinks={again && <AlertActionLink onClick={again}>{texts.again}</AlertActionLink>}
    >
      {error.code !== 'failed' && <p>{known?.advice}</p>}
      {detail !== '' && (
        <ExpandableSection toggleText={texts.technical}>
          <pre>{detail}</pre>
        </ExpandableSection>
      )}
    </Alert>
  );
}
