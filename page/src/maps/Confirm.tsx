// SPDX-License-Identifier: LGPL-3.0-or-later
// Asks before something is changed, does it, and says in the same place when it failed.
import { Button, Modal, ModalBody, ModalFooter, ModalHeader } from '@patternfly/react-core';
import { useState, type ReactElement } from 'react';
import { ErrorNote } from '../parts/ErrorNote';
import { texts } from '../texts';
import { asToolError, type ToolError } from '../tool/ask';

export interface Change {
  title: string;
  question: string;
  isDangerous: boolean;
  run: () => Promise<void>;
}

interface Props {
  change: Change;
  close: (isDone: boolean) => void;
}

export function Confirm({ change, close }: Props): ReactElement {
  const [isBusy, setBusy] = useState(false);
  const [error, setError] = useState<ToolError>();
  const go = async (): Promise<void> => {
    setBusy(true);
    setError(undefined);
    try {
      await change.run();
      close(true);
    } catch (problem) {
      setError(asToolError(problem));
      setBusy(false);
    }
  };
  return (
    <Modal isOpen variant="small" aria-labelledby="confirm-title" aria-describedby="confirm-text" onClose={() => close(false)}>
      <ModalHeader title={change.title} labelId="confirm-title" />
      <ModalBody id="confirm-text">
        {error && <ErrorNote error={error} />}
        <p>{change.question}</p>
      </ModalBody>
      <ModalFooter>
        <Button variant={change.isDangerous ? 'danger' : 'primary'} isLoading={isBusy} isDisabled={isBusy} onClick={() => void go()}>
          {change.title}
        </Button>
        <Button variant="link" isDisabled={isBusy} onClick={() => close(false)}>
          {texts.cancel}
        </Button>
      </ModalFooter>
    </Modal>
  );
}
