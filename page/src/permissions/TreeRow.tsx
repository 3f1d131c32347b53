// SPDX-License-Identifier: LGPL-3.0-or-later
// One row of the tree: a folder, or that more follow.
import type { ReactElement } from 'react';
import { texts } from '../texts';
import type { Rights } from './Tree';
import type { FolderRow, Row } from './tree_state';

export const kRowHeight = 32;
const kIndent = 20;

interface Props {
  id: string;
  row: Row;
  index: number;
  isActive: boolean;
  isSelected: boolean;
  isLoading: boolean;
  rights: Rights | undefined;
  select: () => void;
  toggle: () => void;
}

function notes({ child }: FolderRow): string {
  const words = texts.permissions;
  const entries = child.inherited ? words.inherits : words.own(child.entries);
  return child.child_count === 0 ? entries : `${entries}, ${texts.folders(child.child_count)}`;
}

export function TreeRow({ id, row, index, isActive, isSelected, isLoading, rights, select, toggle }: Props): ReactElement {
  const style = { insetBlockStart: index * kRowHeight, paddingInlineStart: row.level * kIndent };
  const className = isActive ? 'tree__row tree__row--active' : 'tree__row';
  if (row.kind === 'more') {
    return (
      <div id={id} role="treeitem" aria-level={row.level} aria-selected={false} aria-busy={isLoading} className={className} style={style}>
        <span className="tree__note">{texts.permissions.more(row.left)}</span>
      </div>
    );
  }
  const hasChildren = row.child.child_count > 0;
  return (
    <div
      id={id}
      role="treeitem"
      aria-level={row.level}
      aria-setsize={row.siblings}
      aria-posinset={row.place}
      aria-selected={isSelected}
      aria-expanded={hasChildren ? row.isOpen : undefined}
      aria-busy={isLoading}
      data-path={row.path}
      className={className}
      style={style}
      onClick={select}
    >
      <span
        className="tree__toggle"
        aria-hidden="true"
        onClick={(event) => {
          event.stopPropagation();
          toggle();
        }}
      >
        {hasChildren ? (row.isOpen ? '▾' : '▸') : ''}
      </span>
      <span className="tree__name">{row.name}</span>
      {rights && <span className="rights">{rights.letters}</span>}
      {rights && !rights.isVisible && <span className="tree__note">{texts.permissions.notSeen}</span>}
      <span className="tree__note">{notes(row)}</span>
    </div>
  );
}
