// SPDX-License-Identifier: LGPL-3.0-or-later
// Facts in two columns: the name of each, and the fact.
import { DescriptionList, DescriptionListDescription, DescriptionListGroup, DescriptionListTerm } from '@patternfly/react-core';
import type { ReactElement, ReactNode } from 'react';

interface Props {
  facts: (readonly [string, ReactNode] | false | undefined)[];
}

export function Facts({ facts }: Props): ReactElement {
  return (
    <DescriptionList isHorizontal isCompact>
      {facts.map(
        (fact) =>
          fact && (
            <DescriptionListGroup key={fact[0]}>
              <DescriptionListTerm>{fact[0]}</DescriptionListTerm>
              <DescriptionListDescription>{fact[1]}</DescriptionListDescription>
            </DescriptionListGroup>
          ),
      )}
    </DescriptionList>
  );
}
