// SPDX-License-Identifier: LGPL-3.0-or-later
// Says that an answer is on its way, and lets people cancel one that takes long.
import { Button, Flex, Spinner } from '@patternfly/react-core';
import type { ReactElement } from 'react';
import { texts } from '../texts';

interface Props {
  isPending: boolean;
  isSlow: boolean;
  cancel: () => void;
}

export function Pending({ isPending, isSlow, cancel }: Props): ReactElement | null {
  if (!isPending) return null;
  return (
    <Flex className="pending" alignItems={{ default: 'alignItemsCenter' }}>
      <Spinner size="md" aria-label={texts.pending} />
      {isSlow && (
        <Button variant="link" onClick={cancel}>
          {texts.cancel}
        </Button>
      )}
    </Flex>
  );
}
