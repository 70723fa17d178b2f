// Index and matching from one end to the other, and what they refuse.
using System;
using System.Diagnostics;
using System.IO;
using System.Linq;
using System.Reflection;
using Tessera;

public class SessionTests : HomeTest
{
    private static readonly string[] texts =
        Enumerable.Range(0, 8).Select(i => Texts.Prose(1200, (uint)(100 + i))).ToArray();

    private static string Found(MatchSession session, string text, bool graded = true)
    {
        return string.Join(" ", session.Match(Generator.Signatures(text), graded)
                                    .Select(match => match.FileId + ":" + match.Level));
    }

    private static void Index(string home, params long[] fileIds)
    {
        using (var index = new IndexSession(home))
        {
            for (int i = 0; i < fileIds.Length; ++i)
            {
                index.Add(fileIds[i], Generator.Signatures(texts[i % texts.Length]));
            }
        }
    }

    public void ACopyAndAnExcerptAreFoundAndAnUnrelatedTextIsNot()
    {
        Index(Home, 100, 101, 102);
        using (var session = new MatchSession(Home))
        {
            Expect.Equal("101:Strong", Found(session, texts[1]));
            Expect.Equal("102:Strong", Found(session, texts[2].Substring(1000, 2500)));
            Expect.Equal("", Found(session, Texts.Prose(1200, 999)));
        }
    }

    public void LevelsGradeAndUngradedAllAreStrong()
    {
        Index(Home, 5);
        string buried = Texts.Prose(9000, 500) + texts[0].Substring(0, 900) + Texts.Prose(9000, 501);
        string trace = Texts.Prose(9000, 500) + texts[0].Substring(0, 250) + Texts.Prose(9000, 501);
        using (var session = new MatchSession(Home))
        {
            Expect.Equal("5:Weak", Found(session, buried));
            Expect.Equal("5:Trace", Found(session, trace));
            Expect.Equal("5:Strong", Found(session, trace, graded: false));
        }
    }

    // At most five are named for one source, but each file ID is a source of its own.
    public void ATextUnderManyFileIdsNamesThemAllInTheOrderOfTheirSources()
    {
        var fileIds = new long[] { -2147483648, -2, 0, 1, 2, 3, 2147483646 };
        using (var index = new IndexSession(Home))
        {
            foreach (long fileId in fileIds) index.Add(fileId, Generator.Signatures(texts[0]));
        }
        using (var session = new MatchSession(Home))
        {
            Expect.Equal("-2147483648:Strong -2:Strong 0:Strong 1:Strong 2:Strong 3:Strong "
                         + "2147483646:Strong", Found(session, texts[0]));
        }
    }

    public void ADeletedDocumentIsForgottenAndAMissingOneIsNoFailure()
    {
        Index(Home, 1, 2, 3);
        using (var index = new IndexSession(Home))
        {
            index.Delete(1, 77);
            index.Delete();
            index.Delete(2);
            index.Add(2, Generator.Signatures(texts[5]));
        }
        using (var session = new MatchSession(Home))
        {
            Expect.Equal("", Found(session, texts[0]));
            Expect.Equal("", Found(session, texts[1]));
            Expect.Equal("2:Strong", Found(session, texts[5]));
            Expect.Equal("3:Strong", Found(session, texts[2]));
        }
    }

    public void APendingDocumentIsNotDeleted()
    {
        using (var index = new IndexSession(Home))
        {
            index.Add(1, Generator.Signatures(texts[0]));
            index.Delete(1);
        }
        using (var session = new MatchSession(Home)) Expect.Equal("1:Strong", Found(session, texts[0]));
    }

    public void APendingFileIdIsRefusedWithItsStatusAndItsFirstAdditionStands()
    {
        using (var index = new IndexSession(Home))
        {
            index.Add(1, Generator.Signatures(texts[0]));
            var error = Expect.Throws<PendingException>(() => index.Add(1, Generator.Signatures(texts[1])));
            Expect.Equal(2, error.Status);
            Expect.Equal("AddDocSignature", error.Function);
        }
        using (var session = new MatchSession(Home))
        {
            Expect.Equal("1:Strong", Found(session, texts[0]));
            Expect.Equal("", Found(session, texts[1]));
        }
    }

    public void FileIdsOutOfBoundsAreRefused()
    {
        Signature[] list = Generator.Signatures(texts[0]);
        using (var index = new IndexSession(Home))
        {
            foreach (long fileId in new[] { -1L, 2147483647, -2147483649, long.MaxValue, long.MinValue })
            {
                var error = Expect.Throws<TesseraException>(() => index.Add(fileId, list));
                Expect.Equal(1, error.Status);
                Expect.True(error.Message.Contains(fileId.ToString()), error.Message);
            }
            index.Add(1, list);
            Expect.Equal("DelDocSignature",
                         Expect.Throws<TesseraException>(() => index.Delete(long.MaxValue)).Function);
        }
    }

    public void ADocumentNeedsASignatureAndAQueryDoesNot()
    {
        using (var index = new IndexSession(Home))
        {
            Expect.Throws<ArgumentException>(() => index.Add(1, new Signature[0]));
            Expect.Throws<ArgumentNullException>(() => index.Add(1, null));
            Expect.Throws<ArgumentNullException>(() => index.Delete(null));
            index.Add(1, Generator.Signatures(texts[0]));
        }
        using (var session = new MatchSession(Home))
        {
            Expect.Equal(0, session.Match(new Signature[0]).Length);
            Expect.Throws<ArgumentNullException>(() => session.Match(null));
        }
    }

    public void TheOrderOfAQueryDoesNotMatterAndItIsLeftAlone()
    {
        Index(Home, 1, 2);
        Signature[] query = Generator.Signatures(texts[1]).Reverse().ToArray();
        var before = (Signature[])query.Clone();
        using (var session = new MatchSession(Home))
        {
            Expect.Equal("2:Strong", string.Join(" ", session.Match(query).Select(m => m.FileId + ":" + m.Level)));
        }
        Expect.Same(before, query);
    }

    public void TheRootDocumentIsInEveryIndex()
    {
        Index(Home);
        using (var session = new MatchSession(Home))
        {
            Match[] found = session.Match(new[] { Signature.Parse("ffffffffffffffff") });
            Expect.Equal("-1", string.Join(" ", found.Select(match => match.FileId)));
        }
    }

    public void AnImageIsFoundByItsExactBytes()
    {
        byte[] image = Enumerable.Range(0, 40000).Select(i => (byte)(i * i / 7)).ToArray();
        using (var index = new IndexSession(Home)) index.Add(9, Generator.BinarySignatures(image));
        using (var session = new MatchSession(Home))
        {
            Expect.Equal(9L, session.Match(Generator.BinarySignatures(image)).Single().FileId);
            Expect.Equal(0, session.Match(Generator.BinarySignatures(image.Skip(1).ToArray())).Length);
        }
    }

    public void EveryResultIsFreed()
    {
        Signature[] list = Generator.BinarySignatures(new byte[] { 1, 2, 3 });
        using (var index = new IndexSession(Home))
        {
            for (int i = 0; i < 500; ++i) index.Add(i, list);
        }
        using (var session = new MatchSession(Home))
        {
            Expect.Equal(500, session.Match(list).Length);
            Memory.StaysWhen(4000, () => session.Match(list));  // 8 KB each
        }
    }

    public void AHomeWithoutAnIndexCannotBeMatched()
    {
        Expect.Equal(1, Expect.Throws<TesseraException>(() => new MatchSession(Home)).Status);
        Index(Home, 1);  // and the failure did not take the place of a session
        using (new MatchSession(Home)) { }
    }

    public void AHomeMustExist()
    {
        string missing = Path.Combine(Root, "missing");
        Expect.Throws<DirectoryNotFoundException>(() => new IndexSession(missing));
        Expect.Throws<DirectoryNotFoundException>(() => new MatchSession(missing));
        Expect.Throws<ArgumentNullException>(() => new MatchSession(null));
    }

    public void AMalformedConfigurationIsRefused()
    {
        File.WriteAllText(Path.Combine(Home, "index_sys_config.txt"), "no assignment\n");
        var error = Expect.Throws<TesseraException>(() => new IndexSession(Home));
        Expect.Equal("InitIndexSystem", error.Function);
        Expect.True(error.Message.Contains(Home), error.Message);
    }

    public void AConfigurationThatIsThereIsLeftAsItIs()
    {
        string path = Path.Combine(Home, "index_sys_config.txt");
        File.WriteAllText(path, "max_fid_num=7\n");
        Index(Home, 1);
        Expect.Equal("max_fid_num=7\n", File.ReadAllText(path));
    }

    public void ASecondSessionOfItsKindIsRefused()
    {
        string other = NewHome("other");
        Index(Home, 1);
        Index(other, 1);
        using (new IndexSession(Home))
        {
            Expect.Equal("", Expect.Throws<AlreadyOpenException>(() => new IndexSession(other)).Function);
        }
        using (new MatchSession(Home)) Expect.Throws<AlreadyOpenException>(() => new MatchSession(other));
        using (new IndexSession(other)) { }
        using (new MatchSession(other)) { }
    }

    public void AnIndexThatAnotherProcessHasOpenIsRefused()
    {
        using (Process holder = Start("mono", "\"" + Program + "\" Holder"))
        {
            Expect.Equal("open", holder.StandardOutput.ReadLine());
            Expect.Throws<TesseraException>(() => new IndexSession(Home));
            holder.StandardInput.Close();
            holder.WaitForExit();
        }
        using (new IndexSession(Home)) { }
    }

    public void AClosedSessionIsNoLongerUsed()
    {
        var index = new IndexSession(Home);
        index.Add(1, Generator.Signatures(texts[0]));
        index.Close();
        index.Close();
        index.Dispose();
        Expect.Throws<ObjectDisposedException>(() => index.Add(2, Generator.Signatures(texts[1])));
        Expect.Throws<ObjectDisposedException>(() => index.Delete(1));
        Expect.Throws<ObjectDisposedException>(() => index.SetMaxTableSize(1));

        var first = new MatchSession(Home);
        first.Dispose();
        using (new MatchSession(Home))  // an old session does not speak for a new one
        {
            first.Dispose();
            Expect.Throws<ObjectDisposedException>(() => first.Match(new Signature[0]));
            using (new IndexSession(Home))
            {
                Expect.Throws<ObjectDisposedException>(() => index.Delete(1));
            }
        }
    }

    public void ASessionThatWasOpenedBeforeASaveRefuses()
    {
        Index(Home, 1);
        using (var session = new MatchSession(Home))
        {
            Expect.Equal("1:Strong", Found(session, texts[0]));
            using (var index = new IndexSession(Home)) index.Add(2, Generator.Signatures(texts[1]));
            Expect.Equal("MatchSignature",
                         Expect.Throws<TesseraException>(() => Found(session, texts[0])).Function);
        }
        using (var session = new MatchSession(Home)) Expect.Equal("1:Strong", Found(session, texts[0]));
    }

    public void OneHomeIsMatchedWhileAnotherIsIndexed()
    {
        string green = NewHome("green");
        Index(Home, 1);
        using (var session = new MatchSession(Home))
        using (var index = new IndexSession(green))
        {
            index.Add(2, Generator.Signatures(texts[1]));
            Expect.Equal("1:Strong", Found(session, texts[0]));
            index.Close();
            Expect.Equal("1:Strong", Found(session, texts[0]));
            session.Close();
            using (var next = new MatchSession(green)) Expect.Equal("2:Strong", Found(next, texts[1]));
        }
    }

    public void AFullTableRefusesAdditions()
    {
        File.WriteAllText(Path.Combine(Home, "index_sys_config.txt"),
                          "search_table_fname = \"sig_table\"\n");
        using (var index = new IndexSession(Home))
        {
            index.SetMaxTableSize(1);
            index.Add(1, Generator.Signatures(texts[0]));  // there is no table yet
        }
        using (var index = new IndexSession(Home))
        {
            Expect.Equal(1, Expect.Throws<TesseraException>(
                () => index.Add(2, Generator.Signatures(texts[1]))).Status);
            index.SetMaxTableSize(0x80000000);
            index.Add(2, Generator.Signatures(texts[1]));
        }
    }

    public void TheCurrentDirectoryIsTheHostsAgainAfterEachCall()
    {
        string before = Directory.GetCurrentDirectory();
        using (var index = new IndexSession(Home))
        {
            Expect.Equal(before, Directory.GetCurrentDirectory());
            index.Add(1, Generator.Signatures(texts[0]));
            Expect.Equal(before, Directory.GetCurrentDirectory());
        }
        Expect.Throws<TesseraException>(() => new MatchSession(NewHome("empty")));
        Expect.Equal(before, Directory.GetCurrentDirectory());
        Expect.True(!Directory.Exists(Path.Combine(before, "sig_index_DB")), "no index here");
        Expect.True(Directory.Exists(Path.Combine(Home, "sig_index_DB")), "but in the home");
    }

    public void ASessionWhoseHomeIsGoneCanBeClosedAndAnIndexTellsIt()
    {
        Index(Home, 1);
        var session = new MatchSession(Home);
        var index = new IndexSession(Home);
        index.Add(2, Generator.Signatures(texts[1]));
        Directory.Move(Home, Path.Combine(Root, "moved"));
        string before = Directory.GetCurrentDirectory();
        Expect.Throws<DirectoryNotFoundException>(() => index.Add(3, Generator.Signatures(texts[2])));
        Expect.Equal(1, Expect.Throws<TesseraException>(index.Close).Status);
        index.Close();
        session.Close();
        Expect.Equal(before, Directory.GetCurrentDirectory());
        NewHome("home");
        Index(Home, 1);
        using (new MatchSession(Home)) { }
    }

    public void ALinkIsFollowedOnce()
    {
        string other = NewHome("other"), link = Path.Combine(Root, "link");
        Index(Home, 1);
        Index(other, 2, 3);
        Link(Home, link);
        using (var session = new MatchSession(link))
        using (var index = new IndexSession(link))
        {
            Expect.Equal(Home, session.Home);
            File.Delete(link);
            Link(other, link);
            Expect.Equal("1:Strong", Found(session, texts[0]));
            index.Add(9, Generator.Signatures(texts[7]));
        }
        using (var session = new MatchSession(Home)) Expect.Equal("9:Strong", Found(session, texts[7]));
        using (var session = new MatchSession(other)) Expect.Equal("2:Strong", Found(session, texts[0]));
    }

    private static void Link(string target, string name)
    {
        using (Process link = Process.Start("ln", "-s \"" + target + "\" \"" + name + "\"")) link.WaitForExit();
    }

    public void ALostBatchIsToldByClosing()
    {
        // Files may not grow beyond 300 blocks of 512 bytes: a disk that is full.
        using (Process helper = Start("/bin/sh", "-c \"trap '' XFSZ; ulimit -f 300; exec mono '"
                                                 + Program + "' LostBatch\""))
        {
            Expect.Equal("1 passed", helper.StandardOutput.ReadToEnd().Trim());
        }
        Index(Home, 1);
        using (var session = new MatchSession(Home)) Expect.Equal("1:Strong", Found(session, texts[0]));
    }

    private static string Program
    {
        get { return Assembly.GetExecutingAssembly().Location; }
    }

    // A process that is given the home.
    private Process Start(string program, string arguments)
    {
        var start = new ProcessStartInfo(program, arguments)
        {
            UseShellExecute = false, RedirectStandardInput = true, RedirectStandardOutput = true
        };
        start.EnvironmentVariables["TESSERA_TEST_HOME"] = Home;
        return Process.Start(start);
    }
}

/// <summary>Another process, which has an index open until its input ends.</summary>
public class Holder
{
    public void Hold()
    {
        using (new IndexSession(Environment.GetEnvironmentVariable("TESSERA_TEST_HOME")))
        {
            Console.WriteLine("open");
            Console.In.ReadToEnd();
        }
    }
}

/// <summary>Another process, whose disk is full.</summary>
public class LostBatch
{
    public void ClosingThrowsAndTheSessionIsClosed()
    {
        var index = new IndexSession(Environment.GetEnvironmentVariable("TESSERA_TEST_HOME"));
        for (int i = 0; i < 20; ++i) index.Add(i, Generator.Signatures(Texts.Prose(20000, (uint)i)));
        var error = Expect.Throws<TesseraException>(index.Close);
        Expect.Equal("ExitIndexSystem", error.Function);
        Expect.Equal(1, error.Status);
        index.Close();
        Expect.Throws<ObjectDisposedException>(() => index.Delete(1));
    }
}
