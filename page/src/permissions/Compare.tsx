// SPDX-License-Identifier: LGPL-3.0-or-later
// The rights of two users side by side, on the folders in a folder.
import { Label } from '@patternfly/react-core';
import { useEffect, type ReactElement } from 'react';
import { DataTable } from '../parts/DataTable';
import { ErrorNote } from '../parts/ErrorNote';
import { Pending } from '../parts/Pending';
import { UserBox } from '../parts/UserBox';
import { texts } from '../texts';
import type { Effective, OfMap } from '../tool/documents';
import { useAnswer } from '../tool/use_answer';
import { onShare } from './tree_state';

interface Props {
  path: string;
  first: string;
  second: string;
  users: string[];
  edition: number;
  compare: (map: OfMap) => void;
  change: (options: { user?: string; other?: string }) => void;
}

type Seen = Effective['folders'][number];

const words = texts.permissions;

const question = (user: string, path: string): string[] | undefined =>
  user === '' ? undefined : ['effective', `--user=${user}`, onShare(path), '--children'];

function rightsIn(seen: Seen | undefined): ReactElement {
  return (
    <>
      <span className="rights">{seen?.rights ?? '-----'}</span>
      {seen?.visible !== true && ` ${words.notSeen}`}
    </>
  );
}

function Table({ left, right, first, second }: { left: Effective; right: Effective; first: string; second: string }): ReactElement {
  const others = new Map(right.folders.map((folder) => [folder.path, folder]));
  return (
    <>
      <DataTable
        label={words.tabs.compare}
        columns={[words.columns.folder, first, second, words.difference]}
        rows={left.folders.map((folder) => {
          const other = others.get(folder.path);
          const isSame = other?.mask === folder.mask && other.visible === folder.visible;
          return {
            key: folder.path,
            cells: [folder.path, rightsIn(folder), rightsIn(other), isSame ? words.same : <Label color="blue">{words.differs}</Label>],
          };
        })}
      />
      <p>{words.legend}</p>
      {left.more === true && <p>{words.firstPage(left.folders.length)}</p>}
    </>
  );
}

export function Compare({ path, first, second, users, edition, compare, change }: Props): ReactElement {
  const left = useAnswer<Effective>(question(first, path), edition);
  const right = useAnswer<Effective>(question(second, path), edition);
  useEffect(() => {
    if (left.answer) compare(left.answer);
    if (right.answer) compare(right.answer);
  }, [left.answer, right.answer, compare]);
  const again = () => [left, right].forEach((each) => each.again());
  const error = left.error ?? right.error;
  return (
    <>
      <UserBox label={words.first} value={first} users={users} choose={(user) => change({ user })} />
      <UserBox label={words.second} value={second} users={users} choose={(other) => change({ other })} />
      <Pending isPending={left.isPending || right.isPending} isSlow={left.isSlow || right.isSlow} cancel={() => [left, right].forEach((each) => each.cancel())} />
      {(first === '' || second === '') && <p>{words.chooseTwo}</p>}
      {error && <ErrorNote error={error} again={again} />}
      {first !== '' && second !== '' && left.answer && right.answer && (
        <Table left={left.answer} right={right.answer} first={first} second={second} />
      )}
    </>
  );
}
