// SPDX-License-Identifier: LGPL-3.0-or-later
// The tree of folders. Only the rows in sight are in the page, so a long list is as quick as a short one.
import { useEffect, useId, useLayoutEffect, useRef, useState, type KeyboardEvent, type ReactElement } from 'react';
import { texts } from '../texts';
import { TreeRow, kRowHeight } from './TreeRow';
import { parentOf, type FolderRow, type Row } from './tree_state';

const kAround = 10; // rows above and below those in sight

export interface Rights {
  letters: string;
  isVisible: boolean;
}

interface Props {
  rows: Row[];
  selected: string;
  loading: ReadonlySet<string>;
  rights: ReadonlyMap<string, Rights> | undefined;
  select: (path: string) => void;
  setOpen: (path: string, isOpen: boolean) => void;
  loadMore: (path: string) => void;
  inSight: (folders: string[]) => void;
}

const keyOf = (row: Row): string => `${row.kind} ${row.path}`;

export function Tree(props: Props): ReactElement {
  const { rows, selected, loading, rights, select, setOpen, loadMore, inSight } = props;
  const id = useId();
  const box = useRef<HTMLDivElement>(null);
  const [top, setTop] = useState(0);
  const [height, setHeight] = useState(400);
  const [activeKey, setActiveKey] = useState(`folder ${selected}`);
  useEffect(() => setActiveKey(`folder ${selected}`), [selected]);

  const found = rows.findIndex((row) => keyOf(row) === activeKey);
  const active = Math.max(found, 0);
  const first = Math.max(Math.floor(top / kRowHeight) - kAround, 0);
  const last = Math.min(Math.ceil((top + height) / kRowHeight) + kAround, rows.length);
  const shown = rows.slice(first, last).map((row, index) => ({ row, index: first + index }));
  const activeRow = rows[active];
  if (activeRow && (active < first || active >= last)) shown.push({ row: activeRow, index: active });

  useLayoutEffect(() => {
    if (box.current) setHeight(box.current.clientHeight);
  }, [rows.length]);

  // A row that says that more follow loads them when it comes into sight.
  const waiting = shown.flatMap(({ row }) => (row.kind === 'more' && !loading.has(row.path) ? [row.path] : []));
  const waitingKey = JSON.stringify(waiting);
  useEffect(() => (JSON.parse(waitingKey) as string[]).forEach(loadMore), [waitingKey, loadMore]);
  const parents = JSON.stringify([...new Set(shown.map(({ row }) => (row.kind === 'more' ? row.path : parentOf(row.path))))]);
  useEffect(() => inSight(JSON.parse(parents) as string[]), [parents, inSight]);

  const bring = (index: number) => {
    const element = box.current;
    if (!element) return;
    const place = index * kRowHeight;
    if (place < element.scrollTop) element.scrollTop = place;
    else if (place + kRowHeight > element.scrollTop + element.clientHeight) {
      element.scrollTop = place + kRowHeight - element.clientHeight;
    }
  };
  // The selected folder comes into sight when it is loaded.
  useEffect(() => {
    if (found >= 0) bring(found);
  }, [found >= 0, activeKey]);

  const go = (index: number) => {
    const row = rows[Math.min(Math.max(index, 0), rows.length - 1)];
    if (!row) return;
    setActiveKey(keyOf(row));
    bring(rows.indexOf(row));
  };
  const right = (row: FolderRow) => {
    if (row.isOpen) go(active + 1);
    else if (row.child.child_count > 0) setOpen(row.path, true);
  };
  const left = (row: FolderRow) => {
    if (row.isOpen) setOpen(row.path, false);
    else go(rows.findIndex((other) => other.kind === 'folder' && other.path === parentOf(row.path)));
  };
  const onKeyDown = (event: KeyboardEvent) => {
    const page = Math.max(Math.floor(height / kRowHeight) - 1, 1);
    const row = activeRow?.kind === 'folder' ? activeRow : undefined;
    const actions: Record<string, () => void> = {
      ArrowDown: () => go(active + 1),
      ArrowUp: () => go(active - 1),
      PageDown: () => go(active + page),
      PageUp: () => go(active - page),
      Home: () => go(0),
      End: () => go(rows.length - 1),
      ArrowRight: () => row && right(row),
      ArrowLeft: () => row && left(row),
      Enter: () => row && select(row.path),
    };
    const action = actions[event.key];
    if (!action) return;
    event.preventDefault();
    action();
  };

  return (
    <div
      ref={box}
      className="tree"
      role="tree"
      aria-label={texts.permissions.tree}
      aria-activedescendant={activeRow ? `${id}-${active}` : undefined}
      tabIndex={0}
      onKeyDown={onKeyDown}
      onScroll={(event) => setTop(event.currentTarget.scrollTop)}
    >
      <div className="tree__all" role="presentation" style={{ blockSize: rows.length * kRowHeight }}>
        {shown.map(({ row, index }) => (
          <TreeRow
            key={keyOf(row)}
            id={`${id}-${index}`}
            row={row}
            index={index}
            isActive={index === active}
            isSelected={row.kind === 'folder' && row.path === selected}
            isLoading={loading.has(row.path)}
            rights={row.kind === 'folder' ? rights?.get(row.path) : undefined}
            select={() => {
              setActiveKey(keyOf(row));
              if (row.kind === 'folder') select(row.path);
            }}
            toggle={() => row.kind === 'folder' && setOpen(row.path, !row.isOpen)}
          />
        ))}
      </div>
    </div>
  );
}
